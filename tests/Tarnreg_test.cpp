// The tarnreg command, run as a separate process exactly as a user runs it: its
// standard output, its one-line failures on stderr and its exit status, over a
// private map, a private mock register file and a mapped PCI window file.
#include "TarnRegFile/platform/Types.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using Json = nlohmann::json;
using Args = std::vector<std::string>;

constexpr char const* kTool = TARN_BINARY_DIR "/tools/tarnreg";

// Deliberately not in address order, so that sorting is visible.
constexpr char const* kMap =
    "number,name,type,writeable,width\n"
    "2,scratch,cfg,true,32\n"
    "0,board_revision,const,false,8\n"
    "6,led_control,cfg,true,16\n"
    "1,chip_revision,const,false,16\n"
    "5,reset_control,ctl,true,8\n";

struct ToolRun {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

std::string slurp(std::string const& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void writeFile(std::string const& path, std::string const& text) { std::ofstream(path, std::ios::binary) << text; }

std::vector<std::string> lines(std::string const& text) {
  std::vector<std::string> result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) result.push_back(line);
  return result;
}

Args operator+(Args a, Args const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

int exitStatus(int wstatus) { return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus); }

// A failure: nothing on stdout, exactly one "tarnreg: " line on stderr holding @p text.
void expectFailure(ToolRun const& run, int status, std::string const& text) {
  EXPECT_EQ(status, run.status) << run.err;
  EXPECT_EQ("", run.out);
  EXPECT_TRUE(run.err.starts_with("tarnreg: ") && run.err.ends_with("\n")) << run.err;
  EXPECT_EQ(1, std::count(run.err.begin(), run.err.end(), '\n')) << run.err;
  EXPECT_NE(std::string::npos, run.err.find(text)) << "stderr: " << run.err << "expected: " << text;
}

// A private directory with the map; every run's output goes to files in it.
class Tarnreg : public ::testing::Test {
protected:
  void SetUp() override {
    char dir[] = "/tmp/tarnreg_test.XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(dir));
    dir_ = dir;
    writeFile(map_ = dir_ + "/chip.csv", kMap);
    mockFile_ = dir_ + "/mock.csv";
    // A window file standing in for a PCI memory resource: the registers are its bytes.
    writeFile(window_ = dir_ + "/resource0", std::string(0x2000, '\0'));
    ASSERT_EQ(0, ::access(kTool, X_OK)) << kTool << " is not built: build the tarnreg target first";
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // Starts the tool with its output going to files of the directory.
  pid_t spawn(Args const& args) {
    std::vector<char*> argv{const_cast<char*>(kTool)};
    for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (auto [fd, name] : {std::pair{STDOUT_FILENO, "/stdout"}, std::pair{STDERR_FILENO, "/stderr"}})
      posix_spawn_file_actions_addopen(&actions, fd, (dir_ + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    EXPECT_EQ(0, posix_spawn(&pid, kTool, &actions, nullptr, argv.data(), environ));
    posix_spawn_file_actions_destroy(&actions);
    return pid;
  }
  ToolRun outcome(int wstatus) { return {exitStatus(wstatus), slurp(dir_ + "/stdout"), slurp(dir_ + "/stderr")}; }
  ToolRun runTool(Args const& args) {
    int wstatus = 0;
    EXPECT_GT(::waitpid(spawn(args), &wstatus, 0), 0);
    return outcome(wstatus);
  }
  // The tool over the test map with the private mock register file.
  ToolRun mock(Args const& command) { return runTool(Args{"--map", map_, "--mock", "--mock-file", mockFile_} + command); }

  std::string dir_, map_, mockFile_, window_;
};

TEST_F(Tarnreg, JsonOutputIsParseableWithNameAddressAndValue) {
  ASSERT_EQ(0, mock({"write", "scratch", "0xcafef00d"}).status);
  Json const scratch = Json::parse(R"({"name": "scratch", "address": 8, "value": 3405705229})");
  EXPECT_EQ(scratch, Json::parse(mock({"--json", "read", "scratch"}).out));
  EXPECT_EQ(Json::parse(R"({"name": "reset_control", "address": 20, "value": 90})"),
            Json::parse(mock({"write", "reset_control", "0x5a", "--json"}).out));  // --json after the command
  EXPECT_EQ(scratch, Json::parse(mock({"dump", "--json"}).out).at(2));
  EXPECT_EQ(Json::parse(R"({"name": "chip_revision", "address": 4, "type": "const", "width": 16,
                            "writeable": false})"),
            Json::parse(runTool({"--map", map_, "--json", "list"}).out).at(1));
  EXPECT_EQ(Json::parse(R"({"name": "led_control", "address": 24})"),
            Json::parse(runTool({"--map", map_, "--json", "lookup", "0x18"}).out));
}

TEST_F(Tarnreg, DumpAndListAreSortedByAddressInAlignedColumns) {
  ASSERT_EQ(0, mock({"write", "scratch", "0x12345678"}).status);
  EXPECT_EQ((std::vector<std::string>{"address     name            value",
                                      "0x00000000  board_revision  0x00000000",
                                      "0x00000004  chip_revision   0x00000000",
                                      "0x00000008  scratch         0x12345678",
                                      "0x00000014  reset_control   0x00000000",
                                      "0x00000018  led_control     0x00000000"}),
            lines(mock({"dump"}).out));
  auto const listed = lines(runTool({"--map", map_, "list"}).out);
  ASSERT_EQ(6u, listed.size());
  EXPECT_EQ("0x00000004  chip_revision   const         16  ro", listed[2]);
  EXPECT_EQ("0x00000018  led_control     cfg           16  rw", listed[5]);
}

TEST_F(Tarnreg, ListAndLookupTouchNoDeviceAndScaleAddressesForTheTransport) {
  // I2C addresses registers one by one: scratch (number 2) is address 2, not 8.
  Args const i2c{"--map", map_, "--i2c", dir_ + "/no-such-i2c-node", "--addr", "0x50"};
  EXPECT_EQ("scratch\n", runTool(i2c + Args{"lookup", "2"}).out);
  EXPECT_EQ(6u, Json::parse(runTool(i2c + Args{"--json", "list"}).out)[4].at("address"));
  EXPECT_EQ("scratch\n", runTool({"--map", map_, "lookup", "8"}).out);
  // The asynchronous I2C transport counts bytes, 4 per register, like PCI.
  Args const async{"--map", map_, "--i2c-async", dir_ + "/no-such-i2c-node", "--addr", "0x50"};
  EXPECT_EQ("scratch\n", runTool(async + Args{"lookup", "8"}).out);
  expectFailure(runTool({"--map", map_, "lookup", "0x9"}), 1, "no register at address 0x9 in map");
}

TEST_F(Tarnreg, UnknownRegistersMapsAndDevicesAreOneLineAndCreateNothing) {
  expectFailure(mock({"read", "nosuch"}), 1, "no register 'nosuch' in map " + map_);
  expectFailure(mock({"write", "nosuch", "1"}), 1, "no register 'nosuch'");
  EXPECT_NE(0, ::access(mockFile_.c_str(), F_OK)) << "a refused command created the mock register file";

  // The map's faults are named with their line.
  std::string const bad = dir_ + "/bad.csv";
  for (auto [text, expected] :
       {std::pair{"number,name,type,writable,width\n0,a,cfg,true,8\n", "line 1: Encountered wrong CSV header!"},
        std::pair{"number,name,type,writeable,width\n0,a,cfg,true,8\n1,b,cfg,true,x8\n", "line 3: Invalid width token"},
        std::pair{"number,name,type,writeable,width\r\n0,a,cfg,true,8\r\n-1,b,cfg,true,8\r\n",
                  "line 3: Invalid address token"}}) {
    writeFile(bad, text);
    expectFailure(runTool({"--map", bad, "list"}), 1, "map " + bad + ", " + expected);
  }
  // Through a pipe, which cannot be read a second time: the loader's own line number.
  std::string const fifo = dir_ + "/map.fifo";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  pid_t const pid = spawn({"--map", fifo, "list"});
  writeFile(fifo, "number,name,type,writeable,width\n0,a,cfg,true,8\n1,b,cfg,true,x8\n");
  int wstatus = 0;
  ASSERT_GT(::waitpid(pid, &wstatus, 0), 0);
  expectFailure(outcome(wstatus), 1, "map " + fifo + ", line 3: Invalid width token");
  expectFailure(runTool({"--map", dir_ + "/absent.csv", "list"}), 1,
                "cannot open map " + dir_ + "/absent.csv: No such file or directory");
  expectFailure(runTool({"--map", dir_, "list"}), 1, "cannot open map " + dir_ + ": Is a directory");

  std::string const node = dir_ + "/i2c-404";
  expectFailure(runTool({"--map", map_, "--i2c", node, "--addr", "0x50", "read", "scratch"}), 1,
                "Error opening I2C device " + node + ": No such file or directory");
  expectFailure(runTool({"--map", map_, "--i2c-async", node, "--addr", "0x50", "dump"}), 1,
                "Error opening I2C device " + node + ": No such file or directory");
  expectFailure(runTool({"--map", map_, "--i2c-async", "/dev/null", "--addr", "0x50", "write", "scratch", "1"}), 1,
                "Error reading the functions of I2C adapter /dev/null");
  expectFailure(runTool({"--map", map_, "--pci", dir_ + "/resource9", "read", "scratch"}), 1, dir_ + "/resource9");
}

TEST_F(Tarnreg, WritesAreStrictPersistedAndGuardedByTheMapUnlessForced) {
  ToolRun const write = mock({"write", "scratch", "0x12345678"});
  EXPECT_EQ(0, write.status) << write.err;
  EXPECT_EQ("", write.out + write.err);
  // Persisted by address (scratch is register 2: byte address 8), in decimal.
  std::string const before = slurp(mockFile_);
  EXPECT_NE(std::string::npos, before.find("\n8,305419896\n")) << before;
  for (char const* text : {"", "abc", "-1", "+5", " 5", "5 ", "0x", "0x1g", "0x100000000", "4294967296", "010",
                           "1e3", "0b1", "99999999999999999999", "5x"}) {
    SCOPED_TRACE(text);
    expectFailure(mock({"write", "scratch", "--", text}), 2, std::string("VALUE '") + text + "' is not a number");
  }
  expectFailure(mock({"write", "chip_revision", "1"}), 1, "register 'chip_revision' is read-only");
  expectFailure(mock({"write", "reset_control", "0x100"}), 1,
                "value 0x100 does not fit the 8-bit register 'reset_control'");
  EXPECT_EQ(before, slurp(mockFile_));
  expectFailure(runTool({"--map", map_, "lookup", "0x"}), 2, "ADDRESS '0x' is not a number");

  EXPECT_EQ(0, mock({"write", "scratch", "4294967295"}).status);
  EXPECT_EQ(0, mock({"write", "led_control", "0X0000ABCD"}).status);
  ToolRun const read = mock({"read", "scratch"});
  EXPECT_EQ("0xffffffff\n", read.out + read.err);
  EXPECT_EQ(0, read.status);
  EXPECT_EQ("0x0000abcd\n", mock({"read", "led_control"}).out);
  EXPECT_EQ(0, mock({"write", "reset_control", "0xff"}).status);
  EXPECT_EQ(0, mock({"-f", "write", "chip_revision", "1"}).status);
  EXPECT_EQ("0x00000001\n", mock({"read", "chip_revision"}).out);
  EXPECT_EQ(0, mock({"--force", "write", "reset_control", "0x100"}).status);
}

TEST_F(Tarnreg, CommandLineMistakesAreUsageErrors) {
  std::vector<std::pair<Args, char const*>> const cases{
      {{"--map", map_}, "no command given"},
      {{"--map", map_, "frob"}, "frob"},
      {{"list"}, "--map MAP.csv is required"},
      {{"--map", map_, "read", "scratch"}, "read needs a transport"},
      {{"--map", map_, "--mock", "--pci", "x", "dump"}, "choose one transport"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "read", "scratch"}, "--i2c needs the chip's address"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "--addr", "0x80", "list"}, "I2C address '0x80' is not a number in 0x00 - 0x7f"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "--addr", "8", "--flavour", "byte", "list"}, "byte"},
      {{"--map", map_, "--addr", "8", "list"}, "--addr goes with --i2c or --i2c-async"},
      {{"--map", map_, "--i2c-async", "/dev/i2c-1", "read", "scratch"}, "--i2c-async needs the chip's address"},
      {{"--map", map_, "--i2c-async", "/dev/i2c-1", "--addr", "8", "--flavour", "word", "list"},
       "--flavour goes with --i2c"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "--i2c-async", "/dev/i2c-1", "--addr", "8", "list"},
       "choose one transport"},
      {{"--map", map_, "--mock-file", mockFile_, "list"}, "--mock-file goes with --mock"},
      {{"--map", map_, "--pci", "", "dump"}, "--pci needs a resource file"},
      {{"--map", map_, "--mock", "read"}, "REG"},
      {{"--map", map_, "--mock", "read", "scratch", "extra"}, "extra"},
  };
  for (auto const& [args, expected] : cases) {
    SCOPED_TRACE(expected);
    expectFailure(runTool(args), 2, expected);
  }
}

TEST_F(Tarnreg, HelpPrintsTheUsageWithExamples) {
  ToolRun const help = runTool({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ("", help.err);
  EXPECT_TRUE(help.out.starts_with("Usage: tarnreg --map MAP TRANSPORT")) << help.out;
  for (char const* part : {"--mock [--mock-file FILE]", "--i2c DEVNODE --addr ADDR", "--i2c-async DEVNODE --addr ADDR", "Exit status:", "Examples:"})
    EXPECT_NE(std::string::npos, help.out.find(part)) << part;
  EXPECT_EQ(help.out, runTool({"-h"}).out);
  EXPECT_EQ(help.out, runTool({"--map", map_, "read", "--help"}).out);
}

TEST_F(Tarnreg, VerboseTracesToStderrWithoutChangingTheOutput) {
  // Notes about the map's contents are at the deepest levels: only -vv shows them.
  writeFile(map_, std::string(kMap) + "9,odd,weird,true,8\n");
  ToolRun const quiet = mock({"read", "scratch"}), loud = mock({"-v", "read", "scratch"}),
                louder = mock({"-vv", "read", "scratch"});
  EXPECT_EQ("", quiet.err);
  EXPECT_EQ(quiet.out, loud.out);
  EXPECT_EQ(quiet.out, louder.out);
  EXPECT_NE(std::string::npos, loud.err.find("TarnRegFile/")) << loud.err;
  EXPECT_EQ(std::string::npos, loud.err.find("Unknown register type 'weird'"));
  EXPECT_NE(std::string::npos, louder.err.find("Unknown register type 'weird'")) << louder.err;
}

TEST_F(Tarnreg, MockRegisterFileThatCannotBeTrustedIsRefused) {
  writeFile(mockFile_, "Address, Value\n8,not-a-number\n");
  expectFailure(mock({"read", "scratch"}), 1, "mock register file " + mockFile_ + " holds a line that is not");
  std::string const link = dir_ + "/link.csv";
  ASSERT_EQ(0, ::symlink(mockFile_.c_str(), link.c_str()));
  expectFailure(runTool({"--map", map_, "--mock", "--mock-file", link, "read", "scratch"}), 1,
                "is not a regular file of this user");
  expectFailure(runTool({"--map", map_, "--mock", "--mock-file", dir_ + "/none/mock.csv", "read", "scratch"}), 1,
                "cannot create mock register file");
}

TEST_F(Tarnreg, PciAccessesGoThroughTheMappedFileWithinItsSize) {
  ASSERT_EQ(0, runTool({"--map", map_, "--pci", window_, "write", "scratch", "0x12345678"}).status);
  EXPECT_EQ(std::string("\x78\x56\x34\x12", 4), slurp(window_).substr(8, 4));
  EXPECT_EQ("0x12345678\n", runTool({"--map", map_, "--pci", window_, "read", "scratch"}).out);

  std::string const far = dir_ + "/far.csv";
  writeFile(far, "number,name,type,writeable,width\n0,id,const,false,32\n2048,far,sts,false,32\n");
  expectFailure(runTool({"--map", far, "--pci", window_, "read", "far"}), 1,
                "offset 0x2000 is outside the mapping");
}

// A device that drops off the bus answers loads with SIGBUS. A window file cut
// short after the tool mapped it does the same for the part that was cut off.
// To cut it at the right moment the map is a FIFO that this test feeds: the tool
// loads the map, maps the window, then loads the map once more for the
// transport; the window is cut between the two loads.
TEST_F(Tarnreg, PciBusErrorOfAFileCutShortIsAnErrorLine) {
  std::string const fifo = dir_ + "/fed.csv";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  std::string const map = "number,name,type,writeable,width\n0,id,const,false,32\n1536,far,sts,false,32\n";
  auto const sigpipe = std::signal(SIGPIPE, SIG_IGN);
  pid_t const pid = spawn({"--map", fifo, "--pci", window_, "read", "far"});
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  int wstatus = 0;
  bool ended = false;
  // Waits until @p ready holds; false when the tool ended first or time ran out.
  auto const await = [&](auto ready) {
    while (!ready()) {
      if (!ended) ended = ::waitpid(pid, &wstatus, WNOHANG) == pid;
      if (ended || std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  };
  // Hands the map whole to the tool's next open (ENXIO until it opens).
  auto const feed = [&] {
    int fd = -1;
    return await([&] { return (fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; }) &&
           ::write(fd, map.data(), map.size()) == ssize_t(map.size()) && ::close(fd) == 0;
  };
  auto const mapped = [&] { return slurp("/proc/" + std::to_string(pid) + "/maps").find(window_) != std::string::npos; };
  bool const cut = feed() && await(mapped) && ::truncate(window_.c_str(), 0x1000) == 0 && feed();
  await([] { return false; });  // until the tool ends
  std::signal(SIGPIPE, sigpipe);
  if (!ended) ::kill(pid, SIGKILL), ::waitpid(pid, &wstatus, 0);  // shows as status 137
  ToolRun const run = outcome(wstatus);
  ASSERT_TRUE(cut) << "the window was not cut between the two loads of the map; stderr: " << run.err;
  expectFailure(run, 1, "tarnreg: Got SIGBUS when performing operation on register 'far'");
}

// A shadow-field table owned by another process: the shadow_writer helper mounts it
// as its writer, fills it (key {i, i % 32, 1 + i % 32}, value 0x1000 + 7 i, in
// reverse key order), prints "ready" and holds it until its standard input closes.
TEST_F(Tarnreg, ShadowShowReadsATableAnotherProcessIsWritingSortedByKey) {
  std::string const root = dir_ + "/shm", path = "TarnRegFile/shadowFieldsStatus/chip3";
  std::FILE* const writer = ::popen(
      ("exec " TARN_BINARY_DIR "/tests/shadow_writer " + root + " " + path + " 40 >" + dir_ + "/ready").c_str(), "w");
  ASSERT_NE(nullptr, writer);
  for (int i = 0; i < 10000 && slurp(dir_ + "/ready").empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_EQ("ready\n", slurp(dir_ + "/ready"));

  auto const shown = lines(runTool({"shadow", "show", "--root", root, path}).out);
  ASSERT_EQ(41u, shown.size());
  EXPECT_EQ("address     start  size  value", shown[0]);
  EXPECT_EQ("0x00000000      0     1  0x00001000", shown[1]);
  EXPECT_EQ("0x00000027      7     8  0x00001111", shown[40]);  // key {39, 7, 8}, value 0x1000 + 7 * 39
  Json const entries = Json::parse(runTool({"shadow", "show", "--root", root, path, "--json"}).out);
  ASSERT_EQ(40u, entries.size());
  for (U32 i = 0; i < 40; ++i)
    EXPECT_EQ(Json({{"address", i}, {"start", i % 32}, {"size", 1 + i % 32}, {"value", 0x1000 + 7 * i}}), entries[i]);

  expectFailure(runTool({"shadow", "show", "--root", root, "TarnRegFile/shadowFieldsStatus/chip4"}), 1,
                "cannot read shadow table TarnRegFile/shadowFieldsStatus/chip4 under " + root);
  expectFailure(runTool({"shadow", "show", "--root", root, "../shm/" + path}), 2, "'..'");
  expectFailure(runTool({"shadow", "show", "--root", root, "/etc/passwd"}), 2, "/etc/passwd");
  expectFailure(runTool({"shadow", "show", "--root", root}), 2, "PATH is required");
  expectFailure(runTool({"--map", map_, "shadow", "show", "--root", root, path}), 2, "takes no --map");
  EXPECT_EQ(0, ::pclose(writer));  // the readers disturbed nothing
}

}  // namespace
