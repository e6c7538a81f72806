// The tarnreg command, run as a separate process exactly as a user runs it: its
// standard output, its one-line failures on stderr and its exit status, over a
// private map, a private mock register file, a PCI window file and a private
// shared-memory root (the system status it publishes, the shadow tables it shows and
// watches while another process writes them).
#include "TarnRegFile/ShadowTypes.h"
#include "TarnRegFile/platform/ShmRoot.h"
#include "TarnRegFile/platform/Types.h"

#include "support/ScratchFs.h"
#include "support/ToolRun.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

#include <sys/stat.h>

namespace {

using namespace TarnTest;

// Deliberately not in address order, so that sorting is visible.
constexpr char const* kMap =
    "number,name,type,writeable,width\n2,scratch,cfg,true,32\n0,board_revision,const,false,8\n"
    "6,led_control,cfg,true,16\n1,chip_revision,const,false,16\n5,reset_control,ctl,true,8\n";

// A private directory with the map, the mock register file's place and a shm root.
class Tarnreg : public ::testing::Test {
protected:
  void SetUp() override {
    writeFile(map_, kMap);
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
                    root_ = dir_ + "/shm";
  Tool const tarnreg{dir_};
};

TEST_F(Tarnreg, JsonAndTextOutput) {
  ASSERT_EQ(0, mock({"write", "scratch", "0xcafef00d"}).status);
  Json const scratch = Json::parse(R"({"name": "scratch", "address": 8, "value": 3405705229})");
  EXPECT_EQ(scratch, Json::parse(mock({"--json", "read", "scratch"}).out));
  EXPECT_EQ(Json::parse(R"({"name": "chip_revision", "address": 4, "type": "const", "width": 16, "writeable": false})"),
            Json::parse(tarnreg({"--map", map_, "--json", "list"}).out).at(1));
  // Text: sorted by address, in aligned columns.
  EXPECT_EQ("address     name            value\n"
            "0x00000000  board_revision  0x00000000\n"
            "0x00000004  chip_revision   0x00000000\n"
            "0x00000008  scratch         0xcafef00d\n"
            "0x00000014  reset_control   0x00000000\n"
            "0x00000018  led_control     0x00000000\n",
            mock({"dump"}).out);
}

TEST_F(Tarnreg, ListAndLookupTouchNoDeviceAndScaleAddressesForTheTransport) {
  // I2C addresses registers one by one: scratch (number 2) is address 2, not 8.
  Args const i2c{"--map", map_, "--i2c", dir_ + "/no-such-i2c-node", "--addr", "0x50"};
  EXPECT_EQ("scratch\n", tarnreg(i2c + Args{"lookup", "2"}).out);
  EXPECT_EQ("scratch\n", tarnreg({"--map", map_, "lookup", "8"}).out);
  expectFailure(tarnreg({"--map", map_, "lookup", "0x9"}), 1, "no register at address 0x9 in map");
}

TEST_F(Tarnreg, UnknownRegistersMapsAndDevicesAreOneLineAndCreateNothing) {
  expectFailure(mock({"read", "nosuch"}), 1, "no register 'nosuch' in map " + map_);
  EXPECT_FALSE(std::filesystem::exists(mockFile_)) << "a refused command created the mock register file";

  std::string const node = dir_ + "/i2c-404", noNode = "Error opening I2C device " + node + ": No such file or directory";
  for (auto const& [args, expected] : std::vector<std::pair<Args, std::string>>{
           {{"--map", dir_ + "/absent.csv", "list"}, "cannot open map " + dir_ + "/absent.csv: No such file"},
           {{"--map", map_, "--i2c", node, "--addr", "0x50", "read", "scratch"}, noNode}})
    expectFailure(tarnreg(args), 1, expected);
}

TEST_F(Tarnreg, WritesAreStrictPersistedAndGuardedByTheMapUnlessForced) {
  EXPECT_EQ(mock({"write", "scratch", "0x12345678"}), (ToolRun{0, "", ""}));
  std::string const before = slurp(mockFile_);  // by byte address, in decimal
  EXPECT_NE(std::string::npos, before.find("\n8,305419896\n")) << before;
  for (char const* text : {"", "-1", " 5", "5 ", "0x", "0x1g", "0x100000000", "4294967296", "010", "1e3"})
    expectFailure(mock({"write", "scratch", "--", text}), 2, std::string("VALUE '") + text + "' is not a number");
  expectFailure(mock({"write", "chip_revision", "1"}), 1, "register 'chip_revision' is read-only");
  expectFailure(mock({"write", "reset_control", "0x100"}), 1, "value 0x100 does not fit the 8-bit register");
  EXPECT_EQ(before, slurp(mockFile_));

  EXPECT_EQ(0, mock({"--force", "write", "reset_control", "0x100"}).status);
  EXPECT_EQ("0x00000100\n", mock({"read", "reset_control"}).out);
}

TEST_F(Tarnreg, CommandLineMistakesAreUsageErrors) {
  std::vector<std::pair<Args, std::string>> const cases{
      {{"--map", map_}, "no command given"}, {{"--map", map_, "frob"}, "frob"}, {{"list"}, "--map MAP.csv is required"},
      {{"--map", map_, "read", "scratch"}, "read needs a transport"},
      {{"--map", map_, "--mock", "--pci", "x", "dump"}, "choose one transport"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "read", "scratch"}, "--i2c needs the chip's address"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "--addr", "0x80", "list"}, "I2C address '0x80' is not a number in 0x00"},
      {{"--map", map_, "--i2c", "/dev/i2c-1", "--addr", "8", "--flavour", "byte", "list"}, "byte"},
      {{"--map", map_, "--addr", "8", "list"}, "--addr goes with --i2c or --i2c-async"},
      {{"--map", map_, "--mock", "read"}, "REG"},
      {{"status", "show"}, "status needs the system: --system NAME"},
      {{"status", "--system", "a/b", "show"}, "must be one non-empty path component"},
      {{"status", "--system", "s", "add", "chip0", "256", "p1"}, "DEVID '256' is not a number in 0 - 255"},
      {{"status", "--system", "s", "profile", "p1", "1"}, "MAJOR.MINOR '1' is not a version such as 1.2"},
      {{"shadow", "watch"}, "PATH is required"}, {{"shadow", "watch", "../x"}, "shadow table path '../x'"},
  };
  for (auto const& [args, expected] : cases) expectFailure(tarnreg(args), 2, expected);

  ToolRun const help = tarnreg({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_TRUE(help.out.starts_with("Usage: tarnreg --map MAP TRANSPORT")) << help.out;
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
      {{"--json", "write", "scratch", "2"}, "/dev/full", "", 1, "tarnreg: write error: No space left on device\n"},
      {{"-v", "write", "scratch", "4"}, "", std::nullopt, 1, nullptr},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.args.back());
    ToolRun const run = tarnreg(mockArgs() + c.args, c.out, c.err);
    EXPECT_EQ(c.status, run.status);
    EXPECT_TRUE(!c.message || run.err == c.message) << run.err;
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
  for (auto [file, expected] :
       std::initializer_list<std::pair<char const*, char const*>>{
           {"symlink.csv", "is not a regular file of this user"}, {"hardlink.csv", "has other hard links"},
           {"script.sh", "is not a register file (its first line is not \"Address, Value\")"},
           {"none/mock.csv", "cannot create mock register file"}}) {
    std::string const path = dir_ + "/" + file, before = slurp(path);
    expectFailure(tarnreg(mockArgs(path) + Args{"write", "scratch", "5"}), 1, expected);
    EXPECT_EQ(before, slurp(path));
  }
}

// The mock transport leaves alone a file it cannot write (the access succeeds), but a
// value written from the command line that is not in the file is lost: a failure.
TEST_F(Tarnreg, WriteThatIsNotRecordedIsAFailure) {
  ASSERT_EQ(0, mock({"write", "scratch", "7"}).status);
  ASSERT_EQ(0, ::chmod(mockFile_.c_str(), 0444));
  expectFailure(mock({"write", "scratch", "8"}), 1,
                "the value of register 'scratch' was not recorded: cannot write mock register file " + mockFile_ +
                    ": Permission denied");
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

// A device that drops off the bus answers loads with SIGBUS; so does a window file whose
// page has no room on its file system. The window is a hole on a full one.
TEST_F(Tarnreg, PciBusErrorIsAnErrorLine) {
  std::string const fs = dir_ + "/fs", window = fs + "/resource0";
  std::filesystem::create_directory(fs);
  TarnTest::ScratchFs const scratch(fs, 64 * 1024);
  if (!scratch.whyNot().empty()) GTEST_SKIP() << scratch.whyNot();
  scratch.fillUp();
  writeFile(window, "");
  std::filesystem::resize_file(window, 0x2000);
  expectFailure(tarnreg({"--map", map_, "--pci", window, "write", "scratch", "1"}), 1,
                "tarnreg: Got SIGBUS when performing operation on register 'scratch'");
}

TEST_F(Tarnreg, StatusPublishesChipsAndProfilesAndRefusesDanglingNames) {
  expectFailure(status({"show"}), 1, "no status is published for system 'sys0'");
  EXPECT_EQ(0, status({"profile", "p1", "1.2"}).status);
  expectFailure(status({"add", "chip0", "7", "p2"}), 1, "profile 'p2' is not published");
  EXPECT_EQ(status({"add", "chip0", "7", "p1"}), (ToolRun{0, "", ""}));  // silence is success
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
}

// A shadow-field table this process writes while tarnreg reads it: shown sorted by key
// whatever the order of its writes, then watched until SIGTERM ends the watch.
TEST_F(Tarnreg, ShadowShowAndWatchFollowATableAnotherProcessWrites) {
  using namespace TarnRegFile;
  using namespace std::chrono_literals;
  std::string const path = "TarnRegFile/shadowFieldsStatus/chip0", out = dir_ + "/stdout";
  auto table = ShadowFieldCollection::openWriter(Kiv::Shm::Root(root_), path, 64);
  for (U32 i = 40; i-- > 0;)
    table.write(ShadowFieldValue(ShadowFieldKey(i, U8(i % 32), U8(1 + i % 32)), 0x1000 + 7 * i));
  std::string const shown = tarnreg({"shadow", "show", "--root", root_, path}).out;
  EXPECT_EQ(41, std::count(shown.begin(), shown.end(), '\n')) << shown;
  EXPECT_TRUE(shown.starts_with("address     start  size  value\n0x00000000      0     1  0x00001000\n")) << shown;
  EXPECT_TRUE(shown.ends_with("\n0x00000027      7     8  0x00001111\n")) << shown;  // key {39, 7, 8}

  table.write(ShadowFieldValue(ShadowFieldKey(4, 0, 8), 1));
  // Whether the watch's output came to hold @p text within @p timeout.
  auto const shows = [&](std::string const& text, std::chrono::milliseconds timeout) {
    for (auto const end = std::chrono::steady_clock::now() + timeout; slurp(out).find(text) == std::string::npos;) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(1ms);
    }
    return true;
  };
  pid_t const pid = tarnreg.spawn({"shadow", "watch", "--json", "--root", root_, path});
  struct Reap {  // a failed assertion must not leave the watch running
    pid_t pid;
    ~Reap() {
      if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
    }
  } reap{pid};
  // The watch reports states, not events: a commit before it read its starting state is
  // part of its start. Commit until one is reported.
  for (U32 probe = 100;; ++probe) {
    ASSERT_LT(probe, 250u) << "the watch reported no commit";
    table.write(ShadowFieldValue(ShadowFieldKey(8, 0, 8), probe));
    if (shows(R"("value":)" + std::to_string(probe) + "}\n", 200ms)) break;
  }
  // Each change is let through before the next, so that none is folded into another.
  std::size_t const from = slurp(out).size();
  std::string const changed = R"({"change":"changed","address":4,"start":0,"size":8,"value":2})" "\n",
                    removed = "{\"change\":\"removed\",\"address\":4,\"start\":0,\"size\":8}\n";
  table.write(ShadowFieldValue(ShadowFieldKey(4, 0, 8), 2));
  ASSERT_TRUE(shows(changed, 10s)) << slurp(out);
  table.remove(ShadowFieldKey(4, 0, 8));
  ASSERT_TRUE(shows(removed, 10s)) << slurp(out);
  EXPECT_EQ(changed + removed, slurp(out).substr(from));
  ::kill(pid, SIGTERM);
  int wstatus = 0;
  ASSERT_EQ(::waitpid(pid, &wstatus, 0), pid);
  reap.pid = -1;
  EXPECT_EQ(exitStatus(wstatus), 0);
  expectFailure(tarnreg({"shadow", "watch", "--root", root_, "TarnRegFile/none"}), 1, "there is no such table");
}

}  // namespace
