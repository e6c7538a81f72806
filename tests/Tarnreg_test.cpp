// The tarnreg command, run as a separate process exactly as a user runs it: its
// standard output, its one-line failures on stderr and its exit status, over a
// private map, a private mock register file, a mapped PCI window file and a private
// shared-memory root (the system status it publishes, the shadow tables it shows and
// watches while another process writes them).
#include "TarnRegFile/ShadowTypes.h"
#include "TarnRegFile/platform/ShmBell.h"
#include "TarnRegFile/platform/ShmRoot.h"
#include "TarnRegFile/platform/Types.h"

#include "support/ScratchFs.h"
#include "support/ToolRun.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

#include <sys/ptrace.h>
#include <sys/stat.h>

namespace {

using namespace TarnTest;

// Deliberately not in address order, so that sorting is visible.
constexpr char const* kMap =
    "number,name,type,writeable,width\n2,scratch,cfg,true,32\n0,board_revision,const,false,8\n"
    "6,led_control,cfg,true,16\n1,chip_revision,const,false,16\n5,reset_control,ctl,true,8\n";

std::vector<std::string> lines(std::string const& text) {
  std::vector<std::string> result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) result.push_back(line);
  return result;
}

// A private directory with the map, the mock register file's place, a window file
// standing in for a PCI memory resource (the registers are its bytes) and a shm root.
class Tarnreg : public ::testing::Test {
protected:
  void SetUp() override {
    writeFile(map_, kMap);
    writeFile(window_, std::string(0x2000, '\0'));
    ASSERT_EQ(0, ::access(kTarnreg, X_OK)) << kTarnreg << " is not built: build the tarnreg target first";
  }
  // The tool over the test map with the private mock register file.
  Args mockArgs(std::string const& file = "") const {
    return {"--map", map_, "--mock", "--mock-file", file.empty() ? mockFile_ : file};
  }
  ToolRun mock(Args const& command) { return tarnreg(mockArgs() + command); }
  ToolRun status(Args const& command) { return tarnreg(Args{"status", "--root", root_, "--system", "sys0"} + command); }

  TempDir tmp_;
  std::string const dir_ = tmp_.path, map_ = dir_ + "/chip.csv", mockFile_ = dir_ + "/mock.csv",
                    window_ = dir_ + "/resource0", root_ = dir_ + "/shm";
  Tool const tarnreg{dir_};
};

TEST_F(Tarnreg, JsonAndTextOutput) {
  ASSERT_EQ(0, mock({"write", "scratch", "0xcafef00d"}).status);
  Json const scratch = Json::parse(R"({"name": "scratch", "address": 8, "value": 3405705229})");
  EXPECT_EQ(scratch, Json::parse(mock({"--json", "read", "scratch"}).out));
  EXPECT_EQ(Json::parse(R"({"name": "reset_control", "address": 20, "value": 90})"),
            Json::parse(mock({"write", "reset_control", "0x5a", "--json"}).out));  // --json after the command
  EXPECT_EQ(scratch, Json::parse(mock({"dump", "--json"}).out).at(2));
  EXPECT_EQ(Json::parse(R"({"name": "chip_revision", "address": 4, "type": "const", "width": 16, "writeable": false})"),
            Json::parse(tarnreg({"--map", map_, "--json", "list"}).out).at(1));
  EXPECT_EQ(Json::parse(R"({"name": "led_control", "address": 24})"),
            Json::parse(tarnreg({"--map", map_, "--json", "lookup", "0x18"}).out));
  // Text: sorted by address, in aligned columns.
  EXPECT_EQ("address     name            value\n"
            "0x00000000  board_revision  0x00000000\n"
            "0x00000004  chip_revision   0x00000000\n"
            "0x00000008  scratch         0xcafef00d\n"
            "0x00000014  reset_control   0x0000005a\n"
            "0x00000018  led_control     0x00000000\n",
            mock({"dump"}).out);
  auto const listed = lines(tarnreg({"--map", map_, "list"}).out);
  ASSERT_EQ(6u, listed.size());
  EXPECT_EQ("0x00000018  led_control     cfg           16  rw", listed[5]);
}

TEST_F(Tarnreg, ListAndLookupTouchNoDeviceAndScaleAddressesForTheTransport) {
  // I2C addresses registers one by one: scratch (number 2) is address 2, not 8.
  Args const i2c{"--map", map_, "--i2c", dir_ + "/no-such-i2c-node", "--addr", "0x50"};
  EXPECT_EQ("scratch\n", tarnreg(i2c + Args{"lookup", "2"}).out);
  EXPECT_EQ(6u, Json::parse(tarnreg(i2c + Args{"--json", "list"}).out)[4].at("address"));
  EXPECT_EQ("scratch\n", tarnreg({"--map", map_, "lookup", "8"}).out);
  // The asynchronous I2C transport counts bytes, 4 per register, like PCI.
  EXPECT_EQ("scratch\n", tarnreg({"--map", map_, "--i2c-async", "/nonexistent", "--addr", "0x50", "lookup", "8"}).out);
  expectFailure(tarnreg({"--map", map_, "lookup", "0x9"}), 1, "no register at address 0x9 in map");
}

TEST_F(Tarnreg, UnknownRegistersMapsAndDevicesAreOneLineAndCreateNothing) {
  expectFailure(mock({"read", "nosuch"}), 1, "no register 'nosuch' in map " + map_);
  expectFailure(mock({"write", "nosuch", "1"}), 1, "no register 'nosuch'");
  EXPECT_FALSE(std::filesystem::exists(mockFile_)) << "a refused command created the mock register file";

  writeFile(dir_ + "/header.csv", "number,name,type,writable,width\n0,a,cfg,true,8\n");
  writeFile(dir_ + "/crlf.csv", "number,name,type,writeable,width\r\n0,a,cfg,true,8\r\n-1,b,cfg,true,8\r\n");
  std::string const node = dir_ + "/i2c-404", noNode = "Error opening I2C device " + node + ": No such file or directory";
  for (auto const& [args, expected] : std::vector<std::pair<Args, std::string>>{
           {{"--map", dir_ + "/header.csv", "list"}, "map " + dir_ + "/header.csv, line 1: Encountered wrong CSV header!"},
           {{"--map", dir_ + "/crlf.csv", "list"}, "map " + dir_ + "/crlf.csv, line 3: Invalid address token"},
           {{"--map", dir_ + "/absent.csv", "list"}, "cannot open map " + dir_ + "/absent.csv: No such file"},
           {{"--map", dir_, "list"}, "cannot open map " + dir_ + ": Is a directory"},
           {{"--map", map_, "--i2c", node, "--addr", "0x50", "read", "scratch"}, noNode},
           {{"--map", map_, "--i2c-async", node, "--addr", "0x50", "dump"}, noNode},
           {{"--map", map_, "--i2c-async", "/dev/null", "--addr", "0x50", "write", "scratch", "1"},
            "Error reading the functions of I2C adapter /dev/null"},
           {{"--map", map_, "--pci", dir_ + "/resource9", "read", "scratch"}, dir_ + "/resource9"}})
    expectFailure(tarnreg(args), 1, expected);
  // Through a pipe, which cannot be read a second time: the loader's own line number.
  std::string const fifo = dir_ + "/map.fifo";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  std::thread feeder([&] { std::ofstream(fifo) << "number,name,type,writeable,width\n0,a,cfg,true,8\n1,b,cfg,true,x8\n"; });
  expectFailure(tarnreg({"--map", fifo, "list"}), 1, "map " + fifo + ", line 3: Invalid width token");
  feeder.join();
}

TEST_F(Tarnreg, WritesAreStrictPersistedAndGuardedByTheMapUnlessForced) {
  ToolRun const write = mock({"write", "scratch", "0x12345678"});
  EXPECT_EQ(0, write.status);
  EXPECT_EQ("", write.out + write.err);
  std::string const before = slurp(mockFile_);  // by byte address, in decimal
  EXPECT_NE(std::string::npos, before.find("\n8,305419896\n")) << before;
  for (char const* text : {"", "abc", "-1", "+5", " 5", "5 ", "0x", "0x1g", "0x100000000", "4294967296", "010", "1e3",
                           "0b1", "99999999999999999999", "5x"})
    expectFailure(mock({"write", "scratch", "--", text}), 2, std::string("VALUE '") + text + "' is not a number");
  expectFailure(mock({"write", "chip_revision", "1"}), 1, "register 'chip_revision' is read-only");
  expectFailure(mock({"write", "reset_control", "0x100"}), 1, "value 0x100 does not fit the 8-bit register");
  EXPECT_EQ(before, slurp(mockFile_));

  EXPECT_EQ(0, mock({"write", "led_control", "0X0000ABCD"}).status);
  EXPECT_EQ("0x0000abcd\n", mock({"read", "led_control"}).out);
  EXPECT_EQ(0, mock({"-f", "write", "chip_revision", "1"}).status);
  EXPECT_EQ(0, mock({"--force", "write", "reset_control", "0x100"}).status);
  EXPECT_EQ("0x00000100\n", mock({"read", "reset_control"}).out);
}

TEST_F(Tarnreg, CommandLineMistakesAreUsageErrors) {
  std::string const table = "TarnRegFile/shadowFieldsStatus/chip3";
  std::vector<std::pair<Args, std::string>> const cases{
      {{"--map", map_}, "no command given"}, {{"--map", map_, "frob"}, "frob"}, {{"list"}, "--map MAP.csv is required"},
      {{"--map", map_, "read", "scratch"}, "read needs a transport"},
      {{"--map", map_, "--mock", "--pci", "x", "dump"}, "choose one transport"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "read", "scratch"}, "--i2c needs the chip's address"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "--addr", "0x80", "list"}, "I2C address '0x80' is not a number in 0x00"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "--addr", "8", "--flavour", "byte", "list"}, "byte"},
      {{"--map", map_, "--addr", "8", "list"}, "--addr goes with --i2c or --i2c-async"},
      {{"--map", map_, "--i2c-async", "/dev/i2c-1", "read", "scratch"}, "--i2c-async needs the chip's address"},
      {{"--map", map_, "--i2c-async", "/dev/i2c-1", "--addr", "8", "--flavour", "word", "list"}, "--flavour goes with"},
      {{"--map", map_, "--mock-file", mockFile_, "list"}, "--mock-file goes with --mock"},
      {{"--map", map_, "--pci", "", "dump"}, "--pci needs a resource file"},
      {{"--map", map_, "lookup", "0x"}, "ADDRESS '0x' is not a number"}, {{"--map", map_, "--mock", "read"}, "REG"},
      {{"--map", map_, "--mock", "read", "scratch", "extra"}, "extra"},
      {{"status", "show"}, "status needs the system: --system NAME"},
      {{"status", "--system", "a/b", "show"}, "must be one non-empty path component"},
      {{"status", "--system", "s"}, "status needs a command: show, add, remove, profile or remove-profile"},
      {{"status", "--system", "s", "add", "chip0", "256", "p1"}, "DEVID '256' is not a number in 0 - 255"},
      {{"status", "--system", "s", "add", "chip0", "7"}, "PROFILE is required"},
      {{"status", "--system", "s", "add", std::string(64, 'c'), "7", "p1"}, "is longer than 63 bytes"},
      {{"status", "--system", "s", "profile", "p1", "1"}, "MAJOR.MINOR '1' is not a version such as 1.2"},
      {{"status", "--system", "s", "profile", "p1", "1.x"}, "MAJOR.MINOR '1.x' is not a version"},
      {{"status", "--system", "s", "--json", "remove", "chip0"}, "--json goes with status show"},
      {{"--map", "m.csv", "status", "--system", "s", "show"}, "status works on shared memory only"},
      {{"shadow", "watch"}, "PATH is required"}, {{"shadow", "watch", "../x"}, "shadow table path '../x'"},
      {{"shadow", "show", "--root", root_}, "PATH is required"},
      {{"shadow", "show", "--root", root_, "../shm/" + table}, "'..'"},
      {{"shadow", "show", "--root", root_, "/etc/passwd"}, "/etc/passwd"},
      {{"--map", map_, "shadow", "show", "--root", root_, table}, "takes no --map"},
  };
  for (auto const& [args, expected] : cases) expectFailure(tarnreg(args), 2, expected);

  ToolRun const help = tarnreg({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_TRUE(help.out.starts_with("Usage: tarnreg --map MAP TRANSPORT")) << help.out;
  EXPECT_EQ(help.out, tarnreg({"--map", map_, "read", "-h"}).out);
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

// Output that could not be written (a standard stream closed or full) fails the command
// with status 1, and never stops it from doing what it was asked.
TEST_F(Tarnreg, OutputThatCannotBeWrittenIsAFailure) {
  struct Case {
    Args args;
    Stream out, err;
    int status;
    char const* message;  // on stderr, when it is there
  };
  std::vector<Case> const cases{
      {{"read", "scratch"}, std::nullopt, "", 1, "tarnreg: write error: Bad file descriptor\n"},
      {{"read", "scratch"}, "/dev/full", "", 1, "tarnreg: write error: No space left on device\n"},
      {{"write", "scratch", "1"}, std::nullopt, "", 0, ""},  // prints nothing: nothing lost
      {{"--json", "write", "scratch", "2"}, "/dev/full", "", 1, "tarnreg: write error: No space left on device\n"},
      {{"read", "nosuch"}, "", std::nullopt, 1, nullptr},
      {{"-v", "write", "scratch", "3"}, "", "/dev/full", 1, nullptr},
      {{"-v", "write", "scratch", "4"}, "", std::nullopt, 1, nullptr},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.args.back());
    ToolRun const run = tarnreg(mockArgs() + c.args, c.out, c.err);
    EXPECT_EQ(c.status, run.status);
    if (c.message) {
      EXPECT_EQ(c.message, run.err);
    }
    bool const writes = std::find(c.args.begin(), c.args.end(), "write") != c.args.end();
    EXPECT_TRUE(!writes || slurp(mockFile_).find("\n8," + c.args.back() + "\n") != std::string::npos)
        << "the write was not done: " << slurp(mockFile_);
  }
}

TEST_F(Tarnreg, MockRegisterFileThatIsNotOneOrCannotBeTrustedIsRefused) {
  std::string const victim = dir_ + "/victim", script = "#!/bin/sh\necho hello\n";
  writeFile(victim, "Address, Value\n8,1\n");
  ASSERT_EQ(0, ::symlink(victim.c_str(), (dir_ + "/symlink.csv").c_str()));
  ASSERT_EQ(0, ::link(victim.c_str(), (dir_ + "/hardlink.csv").c_str()));
  writeFile(dir_ + "/script.sh", script);
  writeFile(dir_ + "/empty.csv", "");
  writeFile(dir_ + "/header.csv", "Address, Values\n8,1\n");
  writeFile(dir_ + "/corrupt.csv", "Address, Value\n8,not-a-number\n");
  for (auto [file, expected] :
       std::initializer_list<std::pair<char const*, char const*>>{
           {"symlink.csv", "is not a regular file of this user"}, {"hardlink.csv", "has other hard links"},
           {"script.sh", "is not a register file (its first line is not \"Address, Value\")"},
           {"empty.csv", "is not a register file"}, {"header.csv", "is not a register file"},
           {"corrupt.csv", "holds a line that is not 'address,value'"},
           {"none/mock.csv", "cannot create mock register file"}}) {
    std::string const path = dir_ + "/" + file, before = slurp(path);
    expectFailure(tarnreg(mockArgs(path) + Args{"write", "scratch", "5"}), 1, expected);
    EXPECT_EQ(before, slurp(path));
  }
  EXPECT_EQ(script, slurp(dir_ + "/script.sh"));
  EXPECT_EQ("Address, Value\n8,1\n", slurp(victim));
}

// The mock transport leaves alone a file it cannot write (the access succeeds), but a
// value written from the command line that is not in the file is lost: a failure.
TEST_F(Tarnreg, WriteThatIsNotRecordedIsAFailure) {
  ASSERT_EQ(0, mock({"write", "scratch", "7"}).status);
  ASSERT_EQ(0, ::chmod(mockFile_.c_str(), 0444));
  expectFailure(mock({"write", "scratch", "8"}), 1,
                "the value of register 'scratch' was not recorded: cannot write mock register file " + mockFile_ +
                    ": Permission denied");
  EXPECT_EQ("0x00000007\n", mock({"read", "scratch"}).out);  // reading needs no rewrite

  std::string const fs = dir_ + "/fs", file = fs + "/mock.csv";
  std::filesystem::create_directory(fs);
  TarnTest::ScratchFs const scratch(fs, 64 * 1024);
  if (!scratch.whyNot().empty()) GTEST_SKIP() << scratch.whyNot();
  ASSERT_EQ(0, tarnreg(mockArgs(file) + Args{"write", "scratch", "7"}).status);
  scratch.fillUp();
  std::string const notRecorded = "not recorded: cannot write mock register file " + file + ": ";
  expectFailure(tarnreg(mockArgs(file) + Args{"write", "scratch", "8"}), 1, notRecorded + "No space left on device");
  std::filesystem::remove(fs + "/filler");
  scratch.remountReadOnly();
  expectFailure(tarnreg(mockArgs(file) + Args{"write", "scratch", "9"}), 1, notRecorded + "Read-only file system");
  EXPECT_EQ("0x00000007\n", tarnreg(mockArgs(file) + Args{"read", "scratch"}).out);
}

// Invocations on one mock register file take turns from loading it to their last
// rewrite: started all at once, none loses another's write.
TEST_F(Tarnreg, ConcurrentWritesAreNeverLost) {
  constexpr int kWriters = 200;
  std::string map = "number,name,type,writeable,width\n";
  for (int i = 0; i < kWriters; ++i) map += std::to_string(i) + ",r" + std::to_string(i) + ",cfg,true,32\n";
  writeFile(map_, map);
  std::vector<pid_t> writers;
  for (int i = 0; i < kWriters; ++i)
    writers.push_back(tarnreg.spawn(mockArgs() + Args{"write", "r" + std::to_string(i), std::to_string(1000 + i)},
                                    dir_ + "/out" + std::to_string(i), dir_ + "/out" + std::to_string(i)));
  for (pid_t pid : writers) {
    int wstatus = 0;
    EXPECT_EQ(pid, ::waitpid(pid, &wstatus, 0));
    EXPECT_EQ(0, wstatus);
  }
  std::string const text = slurp(mockFile_);
  for (int i = 0; i < kWriters; ++i)
    EXPECT_NE(std::string::npos, text.find("\n" + std::to_string(4 * i) + "," + std::to_string(1000 + i) + "\n"))
        << "lost the write of r" << i;
}

TEST_F(Tarnreg, PciAccessesGoThroughTheMappedFileWithinItsSize) {
  ASSERT_EQ(0, tarnreg({"--map", map_, "--pci", window_, "write", "scratch", "0x12345678"}).status);
  EXPECT_EQ(std::string("\x78\x56\x34\x12", 4), slurp(window_).substr(8, 4));
  EXPECT_EQ("0x12345678\n", tarnreg({"--map", map_, "--pci", window_, "read", "scratch"}).out);
  writeFile(map_, "number,name,type,writeable,width\n0,id,const,false,32\n2048,far,sts,false,32\n");
  expectFailure(tarnreg({"--map", map_, "--pci", window_, "read", "far"}), 1, "offset 0x2000 is outside the mapping");
}

// A device that drops off the bus answers loads with SIGBUS. A window file cut
// short after the tool mapped it does the same for the part that was cut off.
// The tool is traced from syscall to syscall until the window is in its address
// space, and the window is cut right there, before the register is read.
TEST_F(Tarnreg, PciBusErrorOfAFileCutShortIsAnErrorLine) {
  std::string const fifo = dir_ + "/fed.csv";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  std::string const map = "number,name,type,writeable,width\n0,id,const,false,32\n1536,far,sts,false,32\n";
  pid_t const pid = tarnreg.spawn({"--map", fifo, "--pci", window_, "read", "far"});  // waits for its map
  ASSERT_EQ(0, ::ptrace(PTRACE_SEIZE, pid, nullptr, nullptr)) << std::strerror(errno);
  ASSERT_EQ(0, ::ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr));
  std::thread feeder([&] {  // the tool's open of the FIFO lets a writer in (ENXIO until then)
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    int fd = -1;
    while ((fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0 &&
           std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (fd >= 0) (void)!::write(fd, map.data(), map.size()), ::close(fd);
  });
  auto const mapped = [&] { return slurp("/proc/" + std::to_string(pid) + "/maps").find(window_) != std::string::npos; };
  int wstatus = 0;
  bool cut = false;
  while (::waitpid(pid, &wstatus, 0) == pid && WIFSTOPPED(wstatus)) {
    if (mapped()) {
      cut = ::truncate(window_.c_str(), 0x1000) == 0;
      ::ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
      ::waitpid(pid, &wstatus, 0);
      break;
    }
    ::ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
  }
  feeder.join();
  ToolRun const run = tarnreg.outcome(wstatus);
  ASSERT_TRUE(cut) << "the window was not cut after it was mapped; stderr: " << run.err;
  expectFailure(run, 1, "tarnreg: Got SIGBUS when performing operation on register 'far'");
}

TEST_F(Tarnreg, StatusPublishesChipsAndProfilesAndRefusesDanglingNames) {
  expectFailure(status({"show"}), 1, "no status is published for system 'sys0'");
  EXPECT_EQ(0, status({"profile", "p1", "1.2"}).status);
  expectFailure(status({"add", "chip0", "7", "p2"}), 1, "profile 'p2' is not published");
  ToolRun const added = status({"add", "chip0", "7", "p1"});
  EXPECT_EQ(0, added.status) << added.err;
  EXPECT_EQ("", added.out);  // silence is success
  EXPECT_EQ(0, status({"add", "chip1", "0x0c", "p1"}).status);
  EXPECT_EQ("chip   devId  profile\n"
            "chip0      7  p1\n"
            "chip1     12  p1\n"
            "\n"
            "profile  hwApi\n"
            "p1       1.2\n",
            status({"show"}).out);
  expectFailure(status({"remove-profile", "p1"}), 1, "profile 'p1' is still run by chip(s) chip0, chip1");
  EXPECT_EQ(0, status({"remove", "chip1"}).status);
  expectFailure(status({"remove", "chip1"}), 1, "chip 'chip1' is not published for system 'sys0'");
  EXPECT_EQ(Json::parse(R"({"system": "sys0", "chips": [{"name": "chip0", "devId": 7, "profile": "p1"}],
                            "profiles": [{"name": "p1", "major": 1, "minor": 2}]})"),
            Json::parse(status({"show", "--json"}).out));
}

// A shadow-field table this process writes while tarnreg reads it: shown sorted by key
// whatever the order of its writes, then watched, the watch started and stopped once per
// signal.
TEST_F(Tarnreg, ShadowShowAndWatchFollowATableAnotherProcessWrites) {
  using namespace TarnRegFile;
  using namespace std::chrono_literals;
  std::string const path = "TarnRegFile/shadowFieldsStatus/chip0", out = dir_ + "/stdout";
  auto table = ShadowFieldCollection::openWriter(Kiv::Shm::Root(root_), path, 64);
  for (U32 i = 40; i-- > 0;)
    table.write(ShadowFieldValue(ShadowFieldKey(i, U8(i % 32), U8(1 + i % 32)), 0x1000 + 7 * i));
  auto const shown = lines(tarnreg({"shadow", "show", "--root", root_, path}).out);
  ASSERT_EQ(41u, shown.size());
  EXPECT_EQ("address     start  size  value", shown[0]);
  EXPECT_EQ("0x00000027      7     8  0x00001111", shown[40]);  // key {39, 7, 8}, value 0x1000 + 7 * 39
  Json const entries = Json::parse(tarnreg({"shadow", "show", "--root", root_, path, "--json"}).out);
  ASSERT_EQ(40u, entries.size());
  for (U32 i = 0; i < 40; ++i)
    EXPECT_EQ(Json({{"address", i}, {"start", i % 32}, {"size", 1 + i % 32}, {"value", 0x1000 + 7 * i}}), entries[i]);
  expectFailure(tarnreg({"shadow", "show", "--root", root_, "TarnRegFile/shadowFieldsStatus/chip4"}), 1,
                "cannot read shadow table TarnRegFile/shadowFieldsStatus/chip4 under " + root_);

  table.write(ShadowFieldValue(ShadowFieldKey(4, 0, 8), 1));
  auto watchers = [bell = root_ + "/TarnRegFile/shadowFieldsStatus/" + Kiv::Shm::Bell::bellName("chip0")] {
    U32 words[3] = {};
    std::ifstream(bell, std::ios::binary).read(reinterpret_cast<char*>(words), sizeof words);
    return words[2];
  };
  // Whether the watch's output came to hold @p text within @p timeout.
  auto const shows = [&](std::string const& text, std::chrono::milliseconds timeout) {
    for (auto const end = std::chrono::steady_clock::now() + timeout; slurp(out).find(text) == std::string::npos;) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(1ms);
    }
    return true;
  };
  for (int signal : {SIGINT, SIGTERM}) {
    pid_t const pid = tarnreg.spawn({"shadow", "watch", "--json", "--root", root_, path});
    struct Reap {  // a failed assertion must not leave the watch running
      pid_t pid;
      ~Reap() {
        if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
      }
    } reap{pid};
    while (watchers() == 0) ::usleep(1000);
    // Registered, but the watch reads its starting state after that, and reports states, not
    // events: a commit before that read is part of its start. Commit until one is reported.
    for (U32 probe = 100;; ++probe) {
      ASSERT_LT(probe, 120u) << "the watch reported no commit";
      table.write(ShadowFieldValue(ShadowFieldKey(8, 0, 8), probe));
      if (shows(R"("value":)" + std::to_string(probe) + "}\n", 200ms)) break;
    }
    // Each change is let through before the next, so that none is folded into another.
    std::size_t const from = slurp(out).size();
    std::string const changed = R"({"change":"changed","address":4,"start":0,"size":8,"value":)" +
                                std::to_string(2 + signal) + "}\n",
                      removed4 = "{\"change\":\"removed\",\"address\":4,\"start\":0,\"size\":8}\n",
                      removed8 = "{\"change\":\"removed\",\"address\":8,\"start\":0,\"size\":8}\n";
    table.write(ShadowFieldValue(ShadowFieldKey(4, 0, 8), 2 + signal));
    ASSERT_TRUE(shows(changed, 10s)) << slurp(out);
    table.remove(ShadowFieldKey(4, 0, 8));
    ASSERT_TRUE(shows(removed4, 10s)) << slurp(out);
    table.remove(ShadowFieldKey(8, 0, 8));
    ASSERT_TRUE(shows(removed8, 10s)) << slurp(out);
    EXPECT_EQ(changed + removed4 + removed8, slurp(out).substr(from));
    ::kill(pid, signal);
    int wstatus = 0;
    ASSERT_EQ(::waitpid(pid, &wstatus, 0), pid);
    reap.pid = -1;
    EXPECT_EQ(exitStatus(wstatus), 0) << "signal " << signal;
    table.write(ShadowFieldValue(ShadowFieldKey(4, 0, 8), 1));
  }
  expectFailure(tarnreg({"shadow", "watch", "--root", root_, "TarnRegFile/none"}), 1, "there is no such table");
}

}  // namespace
