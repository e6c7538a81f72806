// The tarnreg command, run as a separate process exactly as a user runs it: its
// standard output, its one-line failures on stderr and its exit status, over a
// private map, a private mock register file and a mapped PCI window file.
#include "Types.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using Json = nlohmann::json;

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
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(std::string const& path, std::string const& text) { std::ofstream(path, std::ios::binary) << text; }

// A private directory with the map; every run's output goes to files in it.
class Tarnreg : public ::testing::Test {
protected:
  void SetUp() override {
    char dir[] = "/tmp/tarnreg_test.XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(dir));
    dir_ = dir;
    map_ = dir_ + "/chip.csv";
    mockFile_ = dir_ + "/mock.csv";
    writeFile(map_, kMap);
    ASSERT_EQ(0, ::access(kTool, X_OK)) << kTool << " is not built: build the tarnreg target first";
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

  pid_t spawn(std::vector<std::string> const& args) {
    std::vector<char*> argv{const_cast<char*>(kTool)};
    for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, (dir_ + "/stdout").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (dir_ + "/stderr").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    int const rc = posix_spawn(&pid, kTool, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(0, rc) << std::strerror(rc);
    return pid;
  }

  ToolRun finish(pid_t pid) {
    ToolRun run;
    int wstatus = 0;
    EXPECT_EQ(pid, ::waitpid(pid, &wstatus, 0));
    run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    run.out = slurp(dir_ + "/stdout");
    run.err = slurp(dir_ + "/stderr");
    return run;
  }

  ToolRun runTool(std::vector<std::string> const& args) { return finish(spawn(args)); }

  // The tool over the test map with the private mock register file.
  ToolRun mock(std::vector<std::string> const& command) {
    std::vector<std::string> args{"--map", map_, "--mock", "--mock-file", mockFile_};
    args.insert(args.end(), command.begin(), command.end());
    return runTool(args);
  }

  std::string dir_;
  std::string map_;
  std::string mockFile_;
};

// A failure: nothing on stdout, exactly one "tarnreg: " line on stderr holding @p text.
void expectFailure(ToolRun const& run, int status, std::string const& text) {
  EXPECT_EQ(status, run.status) << run.err;
  EXPECT_EQ("", run.out);
  EXPECT_TRUE(run.err.starts_with("tarnreg: ")) << run.err;
  EXPECT_EQ(1, std::count(run.err.begin(), run.err.end(), '\n')) << run.err;
  EXPECT_TRUE(run.err.ends_with("\n")) << run.err;
  EXPECT_NE(std::string::npos, run.err.find(text)) << "stderr: " << run.err << "expected: " << text;
}

// The text lines of @p text.
std::vector<std::string> lines(std::string const& text) {
  std::vector<std::string> result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) result.push_back(line);
  return result;
}

TEST_F(Tarnreg, MockWriteThenReadRoundTripsThroughItsRegisterFile) {
  ToolRun const write = mock({"write", "scratch", "0x12345678"});
  EXPECT_EQ(0, write.status) << write.err;
  EXPECT_EQ("", write.out);
  EXPECT_EQ("", write.err);
  // Persisted by address (scratch is register 2: byte address 8), in decimal.
  EXPECT_NE(std::string::npos, slurp(mockFile_).find("\n8,305419896\n"));

  ToolRun const read = mock({"read", "scratch"});
  EXPECT_EQ(0, read.status) << read.err;
  EXPECT_EQ("0x12345678\n", read.out);
  EXPECT_EQ("", read.err);

  EXPECT_EQ(0, mock({"write", "led_control", "4660"}).status);  // decimal
  EXPECT_EQ("0x00001234\n", mock({"read", "led_control"}).out);
  EXPECT_EQ("0x12345678\n", mock({"read", "scratch"}).out);
}

TEST_F(Tarnreg, JsonOutputIsParseableWithNameAddressAndValue) {
  ASSERT_EQ(0, mock({"write", "scratch", "0xcafef00d"}).status);

  ToolRun const read = mock({"--json", "read", "scratch"});
  ASSERT_EQ(0, read.status) << read.err;
  Json const reg = Json::parse(read.out);
  EXPECT_EQ("scratch", reg.at("name"));
  EXPECT_EQ(8u, reg.at("address"));
  EXPECT_EQ(0xcafef00du, reg.at("value"));

  ToolRun const write = mock({"write", "reset_control", "0x5a", "--json"});  // --json after the command
  ASSERT_EQ(0, write.status) << write.err;
  EXPECT_EQ(Json::parse(R"({"name": "reset_control", "address": 20, "value": 90})"), Json::parse(write.out));

  ToolRun const dump = mock({"dump", "--json"});
  ASSERT_EQ(0, dump.status) << dump.err;
  Json const values = Json::parse(dump.out);
  ASSERT_TRUE(values.is_array());
  ASSERT_EQ(5u, values.size());
  EXPECT_EQ("scratch", values[2].at("name"));
  EXPECT_EQ(0xcafef00du, values[2].at("value"));
  EXPECT_EQ(0x5au, values[3].at("value"));

  ToolRun const list = runTool({"--map", map_, "--json", "list"});
  ASSERT_EQ(0, list.status) << list.err;
  Json const regs = Json::parse(list.out);
  ASSERT_EQ(5u, regs.size());
  EXPECT_EQ(Json::parse(R"({"name": "chip_revision", "address": 4, "type": "const", "width": 16,
                            "writeable": false})"),
            regs[1]);

  ToolRun const lookup = runTool({"--map", map_, "--json", "lookup", "0x18"});
  ASSERT_EQ(0, lookup.status) << lookup.err;
  EXPECT_EQ(Json::parse(R"({"name": "led_control", "address": 24})"), Json::parse(lookup.out));
}

TEST_F(Tarnreg, DumpAndListAreSortedByAddressInAlignedColumns) {
  ASSERT_EQ(0, mock({"write", "scratch", "0x12345678"}).status);
  ToolRun const dump = mock({"dump"});
  ASSERT_EQ(0, dump.status) << dump.err;
  auto const dumped = lines(dump.out);
  ASSERT_EQ(6u, dumped.size()) << dump.out;  // header and five registers
  std::vector<std::string> const order{"board_revision", "chip_revision", "scratch", "reset_control", "led_control"};
  size_t const valueColumn = dumped[0].find("value");
  for (size_t i = 0; i < order.size(); ++i) {
    std::string const& line = dumped[i + 1];
    EXPECT_NE(std::string::npos, line.find(order[i])) << line;
    EXPECT_EQ(valueColumn, line.find("0x", 2)) << "value column not aligned: " << line;
  }
  EXPECT_EQ("0x00000008  scratch         0x12345678", dumped[3]);

  ToolRun const list = runTool({"--map", map_, "list"});
  ASSERT_EQ(0, list.status) << list.err;
  auto const listed = lines(list.out);
  ASSERT_EQ(6u, listed.size()) << list.out;
  EXPECT_EQ("0x00000004  chip_revision   const         16  ro", listed[2]);
  EXPECT_EQ("0x00000018  led_control     cfg           16  rw", listed[5]);
}

TEST_F(Tarnreg, ListAndLookupTouchNoDeviceAndScaleAddressesForTheTransport) {
  std::string const noDevice = dir_ + "/no-such-i2c-node";
  // I2C addresses registers one by one: scratch (number 2) is address 2, not 8.
  ToolRun const lookup = runTool({"--map", map_, "--i2c", noDevice, "--addr", "0x50", "lookup", "2"});
  EXPECT_EQ(0, lookup.status) << lookup.err;
  EXPECT_EQ("scratch\n", lookup.out);
  EXPECT_EQ("scratch\n", runTool({"--map", map_, "lookup", "8"}).out);

  ToolRun const list = runTool({"--map", map_, "--json", "--i2c", noDevice, "--addr", "0x50", "list"});
  ASSERT_EQ(0, list.status) << list.err;
  EXPECT_EQ(6u, Json::parse(list.out)[4].at("address"));

  expectFailure(runTool({"--map", map_, "lookup", "0x9"}), 1, "no register at address 0x9 in map");
}

TEST_F(Tarnreg, UnknownRegisterIsOneLineAndNonZero) {
  expectFailure(mock({"read", "nosuch"}), 1, "no register 'nosuch' in map " + map_);
  expectFailure(mock({"write", "nosuch", "1"}), 1, "no register 'nosuch'");
  EXPECT_NE(0, ::access(mockFile_.c_str(), F_OK)) << "a refused command created the mock register file";
}

TEST_F(Tarnreg, MalformedOrMissingMapIsNamedWithItsLine) {
  struct Case {
    char const* text;
    char const* expected;
  };
  Case const cases[] = {
      {"number,name,type,writable,width\n0,a,cfg,true,8\n", "line 1: Encountered wrong CSV header!"},
      {"number,name,type,writeable,width\n0,a,cfg,true,8\n1,b,cfg,true,x8\n", "line 3: Invalid width token"},
      {"number,name,type,writeable,width\n0,a,cfg,true,40\n", "line 2: Unsupported register width"},
      {"number,name,type,writeable,width\r\n0,a,cfg,true,8\r\n-1,b,cfg,true,8\r\n", "line 3: Invalid address token"},
      {"", "line 1: Encountered wrong CSV header!"},
  };
  std::string const bad = dir_ + "/bad.csv";
  for (auto const& c : cases) {
    SCOPED_TRACE(c.expected);
    writeFile(bad, c.text);
    expectFailure(runTool({"--map", bad, "list"}), 1, "map " + bad + ", " + c.expected);
    expectFailure(runTool({"--map", bad, "--mock", "--mock-file", mockFile_, "read", "a"}), 1, c.expected);
  }
  expectFailure(runTool({"--map", dir_ + "/absent.csv", "list"}), 1,
                "cannot open map " + dir_ + "/absent.csv: No such file or directory");
  expectFailure(runTool({"--map", dir_, "list"}), 1, "it is a directory");
}

TEST_F(Tarnreg, DeviceThatCannotBeOpenedIsOneLine) {
  std::string const node = dir_ + "/i2c-404";
  expectFailure(runTool({"--map", map_, "--i2c", node, "--addr", "0x50", "read", "scratch"}), 1,
                "Error opening I2C device " + node + ": No such file or directory");
  expectFailure(runTool({"--map", map_, "--pci", dir_ + "/resource0", "read", "scratch"}), 1,
                dir_ + "/resource0");
  writeFile(dir_ + "/empty", "");
  expectFailure(runTool({"--map", map_, "--pci", dir_ + "/empty", "dump"}), 1, "no mappable size");
}

// A window file standing in for a PCI memory resource: the registers are its bytes.
class TarnregPci : public Tarnreg {
protected:
  void SetUp() override {
    Tarnreg::SetUp();
    window_ = dir_ + "/resource0";
    int const fd = ::open(window_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ::ftruncate(fd, 0x2000));
    ::close(fd);
  }
  U32 wordAt(off_t offset) const {
    U32 value = 0;
    int const fd = ::open(window_.c_str(), O_RDONLY);
    EXPECT_EQ(ssize_t(sizeof value), ::pread(fd, &value, sizeof value, offset));
    ::close(fd);
    return value;
  }
  void wordIs(off_t offset, U32 value) const {
    int const fd = ::open(window_.c_str(), O_WRONLY);
    EXPECT_EQ(ssize_t(sizeof value), ::pwrite(fd, &value, sizeof value, offset));
    ::close(fd);
  }
  ToolRun pci(std::vector<std::string> const& command, std::string const& map = {}) {
    std::vector<std::string> args{"--map", map.empty() ? map_ : map, "--pci", window_};
    args.insert(args.end(), command.begin(), command.end());
    return runTool(args);
  }
  std::string window_;
};

TEST_F(TarnregPci, WriteThenReadGoThroughTheMappedFile) {
  ToolRun const write = pci({"write", "scratch", "0x12345678"});
  ASSERT_EQ(0, write.status) << write.err;
  EXPECT_EQ(0x12345678u, wordAt(8));

  wordIs(24, 0xdeadbeef);  // led_control is 16 bits wide: a read keeps the low half
  EXPECT_EQ("0x12345678\n", pci({"read", "scratch"}).out);
  EXPECT_EQ("0x0000beef\n", pci({"read", "led_control"}).out);
}

TEST_F(TarnregPci, RegisterBeyondTheWindowIsRefused) {
  std::string const map = dir_ + "/far.csv";
  writeFile(map, "number,name,type,writeable,width\n0,id,const,false,32\n2048,far,sts,false,32\n");
  expectFailure(pci({"read", "far"}, map), 1, "offset 0x2000 is outside the mapping");
}

// Whether process @p pid has @p path open.
bool hasOpen(pid_t pid, std::string const& path) {
  std::string const dir = "/proc/" + std::to_string(pid) + "/fd";
  DIR* fds = ::opendir(dir.c_str());
  if (!fds) return false;
  bool found = false;
  while (dirent const* entry = ::readdir(fds)) {
    char target[4096];
    ssize_t const n = ::readlinkat(::dirfd(fds), entry->d_name, target, sizeof target);
    if (n > 0 && std::string(target, size_t(n)) == path) found = true;
  }
  ::closedir(fds);
  return found;
}

// A device that drops off the bus answers loads with SIGBUS. A window file cut
// short after the tool mapped it does the same for the part that was cut off.
// To cut it at the right moment the map is a FIFO that this test feeds, one whole
// open at a time: the transport loads the map once more after it has mapped the
// window, and while the tool waits for that load the window is seen in its
// mappings and cut.
TEST_F(TarnregPci, BusErrorOfAFileCutShortIsAnErrorLine) {
  std::string const fifo = dir_ + "/fed.csv";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  std::string const map = "number,name,type,writeable,width\n0,id,const,false,32\n1536,far,sts,false,32\n";
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction previous {};
  ::sigaction(SIGPIPE, &ignore, &previous);

  pid_t const pid = spawn({"--map", fifo, "--pci", window_, "read", "far"});
  std::string const maps = "/proc/" + std::to_string(pid) + "/maps";
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  auto const running = [&] { return std::chrono::steady_clock::now() < deadline && ::kill(pid, 0) == 0 &&
                                    slurp("/proc/" + std::to_string(pid) + "/stat").find(") Z") == std::string::npos; };
  auto const pause = [] { std::this_thread::sleep_for(std::chrono::milliseconds(1)); };
  bool cut = false;
  int feeds = 0;
  while (running()) {
    // Succeeds once the tool is opening the map (ENXIO before).
    int const fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      pause();
      continue;
    }
    while (running() && !hasOpen(pid, fifo)) pause();
    if (!cut && slurp(maps).find(window_) != std::string::npos) {
      ASSERT_EQ(0, ::truncate(window_.c_str(), 0x1000));
      cut = true;
    }
    ::fcntl(fd, F_SETFL, 0);
    [[maybe_unused]] ssize_t const n = ::write(fd, map.data(), map.size());
    ::close(fd);
    ++feeds;
    // The next feed must go to the next open, not to the end of this one.
    while (running() && hasOpen(pid, fifo)) pause();
  }
  ::sigaction(SIGPIPE, &previous, nullptr);
  int wstatus = 0;
  if (::waitpid(pid, &wstatus, WNOHANG) == 0) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &wstatus, 0);
    FAIL() << "tarnreg did not finish";
  }
  ToolRun run;
  run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  run.out = slurp(dir_ + "/stdout");
  run.err = slurp(dir_ + "/stderr");
  ASSERT_TRUE(cut) << "the window was never seen mapped while the tool waited for its map (" << feeds
                   << " feeds); stderr: " << run.err;
  expectFailure(run, 1, "tarnreg: Got SIGBUS when performing operation on register 'far'");
}

TEST_F(Tarnreg, BadValuesAreRefusedBeforeAnythingIsWritten) {
  ASSERT_EQ(0, mock({"write", "scratch", "7"}).status);
  std::string const before = slurp(mockFile_);
  char const* const refused[] = {"",           "abc", "-1",   "+5", " 5",  "5 ",         "0x",  "0x1g",
                                 "0x100000000", "4294967296", "010", "1e3", "0b1", "99999999999999999999", "5x"};
  for (char const* text : refused) {
    SCOPED_TRACE(text);
    expectFailure(mock({"write", "scratch", "--", text}), 2, std::string("VALUE '") + text + "' is not a number");
  }
  EXPECT_EQ(before, slurp(mockFile_));
  expectFailure(runTool({"--map", map_, "lookup", "0x"}), 2, "ADDRESS '0x' is not a number");

  EXPECT_EQ(0, mock({"write", "scratch", "4294967295"}).status);
  EXPECT_EQ("0xffffffff\n", mock({"read", "scratch"}).out);
  EXPECT_EQ(0, mock({"write", "scratch", "0X0000ABCD"}).status);
  EXPECT_EQ("0x0000abcd\n", mock({"read", "scratch"}).out);
  EXPECT_EQ(0, mock({"write", "scratch", "0"}).status);
  EXPECT_EQ("0x00000000\n", mock({"read", "scratch"}).out);
}

TEST_F(Tarnreg, WritesTheMapForbidsNeedForce) {
  expectFailure(mock({"write", "chip_revision", "1"}), 1, "register 'chip_revision' is read-only");
  expectFailure(mock({"write", "reset_control", "0x100"}), 1,
                "value 0x100 does not fit the 8-bit register 'reset_control'");
  EXPECT_EQ(0, mock({"write", "reset_control", "0xff"}).status);
  EXPECT_EQ(0, mock({"-f", "write", "chip_revision", "1"}).status);
  EXPECT_EQ("0x00000001\n", mock({"read", "chip_revision"}).out);
  EXPECT_EQ(0, mock({"--force", "write", "reset_control", "0x100"}).status);
}

TEST_F(Tarnreg, CommandLineMistakesAreUsageErrors) {
  struct Case {
    std::vector<std::string> args;
    char const* expected;
  };
  std::vector<Case> const cases{
      {{"--map", map_}, "no command given"},
      {{"--map", map_, "frob"}, "frob"},
      {{"list"}, "--map MAP.csv is required"},
      {{"--map", map_, "read", "scratch"}, "read needs a transport"},
      {{"--map", map_, "--mock", "--pci", "x", "dump"}, "choose one transport"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "read", "scratch"}, "--i2c needs the chip's address"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "--addr", "0x80", "list"}, "I2C address '0x80' is not a number in 0x00 - 0x7f"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "--addr", "8", "--flavour", "byte", "list"}, "byte"},
      {{"--map", map_, "--addr", "8", "list"}, "--addr and --flavour go with --i2c"},
      {{"--map", map_, "--mock-file", mockFile_, "list"}, "--mock-file goes with --mock"},
      {{"--map", map_, "--pci", "", "dump"}, "--pci needs a resource file"},
      {{"--map", map_, "--mock", "read"}, "REG"},
      {{"--map", map_, "--mock", "read", "scratch", "extra"}, "extra"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.expected);
    expectFailure(runTool(c.args), 2, c.expected);
  }
}

TEST_F(Tarnreg, HelpPrintsTheUsageWithExamples) {
  for (char const* flag : {"--help", "-h"}) {
    ToolRun const help = runTool({flag});
    EXPECT_EQ(0, help.status);
    EXPECT_EQ("", help.err);
    EXPECT_TRUE(help.out.starts_with("Usage: tarnreg --map MAP TRANSPORT")) << help.out;
    for (char const* part : {"--mock [--mock-file FILE]", "--pci RESOURCE_FILE", "--i2c DEVNODE --addr ADDR",
                             "lookup ADDRESS", "Exit status:", "Examples:"})
      EXPECT_NE(std::string::npos, help.out.find(part)) << part;
  }
  EXPECT_EQ(0, runTool({"--map", map_, "read", "--help"}).status);
}

TEST_F(Tarnreg, VerboseTracesToStderrWithoutChangingTheOutput) {
  ToolRun const quiet = mock({"read", "scratch"});
  ToolRun const loud = mock({"-v", "read", "scratch"});
  EXPECT_EQ(0, loud.status);
  EXPECT_EQ(quiet.out, loud.out);
  EXPECT_EQ("", quiet.err);
  EXPECT_NE(std::string::npos, loud.err.find("TarnRegFile/")) << loud.err;

  // Notes about the map's contents are at the deepest levels: only -vv shows them.
  writeFile(map_, std::string(kMap) + "9,odd,weird,true,8\n");
  EXPECT_EQ(std::string::npos, mock({"-v", "read", "scratch"}).err.find("Unknown register type 'weird'"));
  ToolRun const louder = mock({"-vv", "read", "scratch"});
  EXPECT_EQ(quiet.out, louder.out);
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

// A shadow-field table owned by another process: the shadow_writer helper mounts it
// as its writer, fills it and holds it until its standard input closes.
class TarnregShadow : public Tarnreg {
protected:
  static constexpr char const* kWriter = TARN_BINARY_DIR "/tests/shadow_writer";
  static constexpr char const* kPath = "TarnRegFile/shadowFieldsStatus/chip3";

  void SetUp() override {
    Tarnreg::SetUp();
    root_ = dir_ + "/shm";
    ASSERT_EQ(0, ::access(kWriter, X_OK)) << kWriter << " is not built";
  }
  void TearDown() override {
    stopWriter();
    Tarnreg::TearDown();
  }

  // Starts the writer with @p count entries and waits until they are committed.
  void startWriter(U32 count) {
    int toWriter[2], fromWriter[2];
    ASSERT_EQ(0, ::pipe2(toWriter, O_CLOEXEC));
    ASSERT_EQ(0, ::pipe2(fromWriter, O_CLOEXEC));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, toWriter[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fromWriter[1], STDOUT_FILENO);
    std::string const countText = std::to_string(count);
    char* argv[] = {const_cast<char*>(kWriter), const_cast<char*>(root_.c_str()), const_cast<char*>(kPath),
                    const_cast<char*>(countText.c_str()), nullptr};
    ASSERT_EQ(0, posix_spawn(&writer_, kWriter, &actions, nullptr, argv, environ));
    posix_spawn_file_actions_destroy(&actions);
    ::close(toWriter[0]);
    ::close(fromWriter[1]);
    writerInput_ = toWriter[1];
    char ready[16] = {};
    ssize_t const n = ::read(fromWriter[0], ready, sizeof ready - 1);
    ::close(fromWriter[0]);
    ASSERT_GT(n, 0);
    ASSERT_STREQ("ready\n", ready);
  }
  // Lets the writer finish; returns its exit status.
  int stopWriter() {
    if (writer_ <= 0) return -1;
    ::close(writerInput_);
    int wstatus = 0;
    ::waitpid(writer_, &wstatus, 0);
    writer_ = -1;
    return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  }

  std::string root_;
  pid_t writer_ = -1;
  int writerInput_ = -1;
};

TEST_F(TarnregShadow, ShowsATableAnotherProcessIsWritingSortedByKey) {
  startWriter(40);  // written in reverse key order
  ToolRun const text = runTool({"shadow", "show", "--root", root_, kPath});
  ASSERT_EQ(0, text.status) << text.err;
  auto const shown = lines(text.out);
  ASSERT_EQ(41u, shown.size()) << text.out;
  EXPECT_EQ("address     start  size  value", shown[0]);
  EXPECT_EQ("0x00000000      0     1  0x00001000", shown[1]);
  EXPECT_EQ("0x00000027      7     8  0x00001111", shown[40]);  // key {39, 7, 8}, value 0x1000 + 7 * 39

  ToolRun const json = runTool({"shadow", "show", "--root", root_, kPath, "--json"});
  ASSERT_EQ(0, json.status) << json.err;
  Json const entries = Json::parse(json.out);
  ASSERT_EQ(40u, entries.size());
  for (U32 i = 0; i < 40; ++i) {
    EXPECT_EQ(i, entries[i].at("address"));
    EXPECT_EQ(i % 32, entries[i].at("start"));
    EXPECT_EQ(1 + i % 32, entries[i].at("size"));
    EXPECT_EQ(0x1000 + 7 * i, entries[i].at("value"));
  }
  EXPECT_EQ(0, stopWriter());  // the reader disturbed nothing
}

TEST_F(TarnregShadow, MissingOrEscapingTablesAreOneLine) {
  startWriter(1);
  expectFailure(runTool({"shadow", "show", "--root", root_, "TarnRegFile/shadowFieldsStatus/chip4"}), 1,
                "cannot read shadow table TarnRegFile/shadowFieldsStatus/chip4 under " + root_);
  expectFailure(runTool({"shadow", "show", "--root", root_, "../shm/" + std::string(kPath)}), 2, "'..'");
  expectFailure(runTool({"shadow", "show", "--root", root_, "/etc/passwd"}), 2, "/etc/passwd");
  expectFailure(runTool({"shadow", "show", "--root", root_}), 2, "PATH is required");
  expectFailure(runTool({"--map", map_, "shadow", "show", "--root", root_, kPath}), 2, "takes no --map");
}

}  // namespace
