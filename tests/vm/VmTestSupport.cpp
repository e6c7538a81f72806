#include "VmTestSupport.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace TarnVm {
namespace {

std::string firstLine(std::filesystem::path const& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

// The name of the first entry of the sysfs directory @p dir whose path satisfies @p match, or "".
template <class F>
std::string firstEntry(char const* dir, F match) {
  std::error_code ec;  // a directory that does not exist has no entries
  for (auto const& e : std::filesystem::directory_iterator(dir, ec))
    if (match(e.path())) return e.path().filename();
  return {};
}

}  // namespace

bool inTestVm() {
  char const* v = std::getenv("TARN_VM");
  return v != nullptr && std::string(v) == "1";
}

CommandResult runCommand(std::vector<std::string> const& argv) {
  CommandResult result;
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return result;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int target : {1, 2}) posix_spawn_file_actions_adddup2(&actions, pipeFds[1], target);
  std::vector<char*> args;
  for (auto const& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  int const rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  char buffer[512];
  for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) != 0 && (n > 0 || errno == EINTR);)
    if (n > 0) result.output.append(buffer, std::size_t(n));
  close(pipeFds[0]);
  if (rc != 0) return CommandResult{-1, "cannot start " + argv[0]};
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

std::string findPciDevice(unsigned vendor, unsigned device) {
  auto const id = [](std::filesystem::path const& file) { return std::strtoul(firstLine(file).c_str(), nullptr, 16); };
  return firstEntry("/sys/bus/pci/devices",
                    [&](auto const& dir) { return id(dir / "vendor") == vendor && id(dir / "device") == device; });
}

bool findI2cStub(int& bus, std::string& node) {
  std::string const name = firstEntry(
      "/sys/class/i2c-dev", [](auto const& dir) { return firstLine(dir / "name") == "SMBus stub driver"; });
  if (name.rfind("i2c-", 0) != 0) return false;
  bus = std::atoi(name.c_str() + 4);
  node = "/dev/" + name;
  return true;
}

void I2cStubTest::SetUp() {
  TARN_REQUIRE_TEST_VM();
  ASSERT_TRUE(findI2cStub(bus_, node_)) << kNoI2cStub;
}

unsigned I2cStubTest::get(unsigned command, char const* mode) const {
  auto const r = runCommand({"i2cget", "-y", std::to_string(bus_), "0x50", fmt::format("{:#x}", command), mode});
  EXPECT_EQ(0, r.exitStatus) << r.output;
  return unsigned(std::strtoul(r.output.c_str(), nullptr, 16));
}

void I2cStubTest::set(unsigned command, std::vector<unsigned> const& values, char const* mode) const {
  std::vector<std::string> argv{"i2cset", "-y", std::to_string(bus_), "0x50", fmt::format("{:#x}", command)};
  for (unsigned v : values) argv.push_back(fmt::format("{:#x}", v));
  argv.emplace_back(mode);
  auto const r = runCommand(argv);
  EXPECT_EQ(0, r.exitStatus) << r.output;
}

}  // namespace TarnVm
