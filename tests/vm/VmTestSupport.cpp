#include "VmTestSupport.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <memory>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace TarnVm {

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
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 2);
  std::vector<char*> args;
  for (auto const& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  int const rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  if (rc != 0) {
    close(pipeFds[0]);
    result.output = std::string("cannot start ") + argv[0];
    return result;
  }
  char buffer[512];
  for (;;) {
    ssize_t const n = read(pipeFds[0], buffer, sizeof buffer);
    if (n > 0) {
      result.output.append(buffer, std::size_t(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  close(pipeFds[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

namespace {

std::string firstLine(std::string const& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

std::vector<std::string> directoryEntries(char const* path) {
  std::vector<std::string> names;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path), closedir);
  if (!dir) return names;
  while (dirent* e = readdir(dir.get())) {
    if (e->d_name[0] != '.') names.emplace_back(e->d_name);
  }
  return names;
}

}  // namespace

std::string findPciDevice(unsigned vendor, unsigned device) {
  for (auto const& name : directoryEntries("/sys/bus/pci/devices")) {
    std::string const dir = "/sys/bus/pci/devices/" + name;
    if (std::strtoul(firstLine(dir + "/vendor").c_str(), nullptr, 16) == vendor &&
        std::strtoul(firstLine(dir + "/device").c_str(), nullptr, 16) == device)
      return name;
  }
  return {};
}

bool findI2cStub(int& bus, std::string& node) {
  for (auto const& name : directoryEntries("/sys/class/i2c-dev")) {
    if (name.rfind("i2c-", 0) == 0 && firstLine("/sys/class/i2c-dev/" + name + "/name") == "SMBus stub driver") {
      bus = std::atoi(name.c_str() + 4);
      node = "/dev/" + name;
      return true;
    }
  }
  return false;
}

namespace {
std::string hex(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}
}  // namespace

unsigned busyboxGetByte(int bus, unsigned command) {
  auto const r = runCommand({"i2cget", "-y", std::to_string(bus), "0x50", hex(command), "b"});
  EXPECT_EQ(0, r.exitStatus) << r.output;
  return unsigned(std::strtoul(r.output.c_str(), nullptr, 16));
}

void busyboxSetBlock(int bus, unsigned command, std::vector<unsigned> const& bytes) {
  std::vector<std::string> argv{"i2cset", "-y", std::to_string(bus), "0x50", hex(command)};
  for (unsigned b : bytes) argv.push_back(hex(b));
  argv.emplace_back("i");
  auto const r = runCommand(argv);
  EXPECT_EQ(0, r.exitStatus) << r.output;
}

}  // namespace TarnVm
