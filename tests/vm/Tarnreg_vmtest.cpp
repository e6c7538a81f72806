// The tarnreg command over real kernel drivers, run as a separate process exactly
// as a user runs it inside the VM: the i2c-stub chip at 0x50 behind i2c-dev, cross-
// checked with busybox i2cget/i2cset, and QEMU's edu PCI device through its sysfs
// resource file. The i386 build's command goes through the kernel's 32-bit compat
// path of the i2c-dev ioctls here.
//
// The stub keeps 256 cells of 16 bits indexed by the SMBus command byte: a word
// transfer at command c moves the whole cell c, an I2C block transfer at command c
// moves the low bytes of cells c, c+1, ... and has no register pointer of its own.

#include "VmTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using Json = nlohmann::json;

// scripts/vm-test.sh puts the build's commands there.
constexpr char const* kTool = "/tarn/bin/tarnreg";
constexpr unsigned kChip = 0x50;

// Registers 0x40 (word40), 0x41 (word41) and 0x42 (status42, read-only), 16 bits wide.
constexpr char const* kWordMap = TARN_SOURCE_DIR "/tests/vm/data/tarnreg_stub_word.csv";
// Register 0x6040 (block6040), 32 bits wide.
constexpr char const* kBlockMap = TARN_SOURCE_DIR "/tests/vm/data/tarnreg_stub_block.csv";
// Register 0 (ident, read-only) and 1 (liveness) of the edu device.
constexpr char const* kEduMap = TARN_SOURCE_DIR "/tests/vm/data/tarnreg_edu.csv";

struct ToolRun {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

std::string hex(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

// tarnreg's text form of a value: 0x and eight digits, one line.
std::string valueLine(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x\n", value);
  return text;
}

std::string slurp(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> words(std::string const& line) {
  std::vector<std::string> result;
  std::istringstream in(line);
  for (std::string word; in >> word;) result.push_back(word);
  return result;
}

std::vector<std::string> lines(std::string const& text) {
  std::vector<std::string> result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) result.push_back(line);
  return result;
}

// A failure: nothing on stdout, exactly one "tarnreg: " line on stderr holding @p text.
void expectFailure(ToolRun const& run, std::string const& text) {
  EXPECT_EQ(1, run.status) << run.err;
  EXPECT_EQ("", run.out);
  EXPECT_TRUE(run.err.starts_with("tarnreg: ")) << run.err;
  EXPECT_EQ(1, std::count(run.err.begin(), run.err.end(), '\n')) << run.err;
  EXPECT_NE(std::string::npos, run.err.find(text)) << "stderr: " << run.err << "expected: " << text;
}

void expectSuccess(ToolRun const& run) {
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("", run.err);
}

// The command in a private directory under /tmp that holds its output.
class TarnregVm : public ::testing::Test {
protected:
  void SetUp() override {
    TARN_REQUIRE_TEST_VM();
    ASSERT_EQ(0, ::access(kTool, X_OK)) << kTool << " is missing: the VM was started without the tarnreg command";
    char dir[] = "/tmp/tarnreg_vmtest.XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(dir));
    dir_ = dir;
  }
  void TearDown() override {
    if (dir_.empty()) return;
    ::unlink((dir_ + "/stdout").c_str());
    ::unlink((dir_ + "/stderr").c_str());
    ::rmdir(dir_.c_str());
  }

  ToolRun run(std::vector<std::string> const& args) {
    ToolRun result;
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
    if (rc != 0) {
      ADD_FAILURE() << "cannot start " << kTool << ": " << std::strerror(rc);
      return result;
    }
    int wstatus = 0;
    while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    result.out = slurp(dir_ + "/stdout");
    result.err = slurp(dir_ + "/stderr");
    return result;
  }

  std::string dir_;
};

class TarnregOnStub : public TarnregVm {
protected:
  void SetUp() override {
    TarnregVm::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    bus_ = TarnVm::findI2cAdapter("SMBus stub driver");
    ASSERT_GE(bus_, 0) << "no i2c-stub adapter (insmod i2c-stub.ko chip_addr=0x50)";
    node_ = "/dev/i2c-" + std::to_string(bus_);
  }

  // tarnreg over the stub chip with @p map; @p command follows the transport options.
  ToolRun tool(char const* map, char const* flavour, std::vector<std::string> const& command,
               unsigned chip = kChip) {
    std::vector<std::string> args{"--map", map, "--i2c", node_, "--addr", hex(chip)};
    if (flavour != nullptr) args.insert(args.end(), {"--flavour", flavour});
    args.insert(args.end(), command.begin(), command.end());
    return run(args);
  }

  unsigned busyboxGet(unsigned command, char const* mode) {
    auto const r = TarnVm::runCommand({"i2cget", "-y", std::to_string(bus_), hex(kChip), hex(command), mode});
    EXPECT_EQ(0, r.exitStatus) << r.output;
    return unsigned(std::strtoul(r.output.c_str(), nullptr, 16));
  }
  void busyboxSet(unsigned command, unsigned value, char const* mode) {
    auto const r =
        TarnVm::runCommand({"i2cset", "-y", std::to_string(bus_), hex(kChip), hex(command), hex(value), mode});
    ASSERT_EQ(0, r.exitStatus) << r.output;
  }

  int bus_ = -1;
  std::string node_;
};

TEST_F(TarnregOnStub, WordWriteReachesTheCellOtherClientsRead) {
  busyboxSet(0x40, 0, "w");
  busyboxSet(0x41, 0x5a5a, "w");
  ToolRun const write = tool(kWordMap, "word", {"write", "word40", "0x1234"});
  expectSuccess(write);
  EXPECT_EQ("", write.out);
  EXPECT_EQ(0x1234u, busyboxGet(0x40, "w"));
  EXPECT_EQ(0x5a5au, busyboxGet(0x41, "w")) << "a word write touches one cell only";

  ToolRun const json = tool(kWordMap, "word", {"--json", "write", "word41", "4660"});
  expectSuccess(json);
  EXPECT_EQ(Json::parse(R"({"name": "word41", "address": 65, "value": 4660})"), Json::parse(json.out));
  EXPECT_EQ(0x1234u, busyboxGet(0x41, "w"));
}

TEST_F(TarnregOnStub, ReadShowsTheWordAnotherClientSet) {
  for (unsigned value : {0xbeefu, 0x0102u}) {
    busyboxSet(0x41, value, "w");
    ToolRun const text = tool(kWordMap, "word", {"read", "word41"});
    expectSuccess(text);
    EXPECT_EQ(valueLine(value), text.out);

    ToolRun const json = tool(kWordMap, "word", {"read", "word41", "--json"});
    expectSuccess(json);
    Json const reg = Json::parse(json.out);
    EXPECT_EQ("word41", reg.at("name"));
    EXPECT_EQ(0x41u, reg.at("address")) << "I2C register numbers are byte addresses";
    EXPECT_EQ(value, reg.at("value"));
  }
}

TEST_F(TarnregOnStub, RefusedWritesLeaveTheChipAloneUntilForced) {
  busyboxSet(0x40, 0x0f0f, "w");
  busyboxSet(0x42, 0x7777, "w");
  expectFailure(tool(kWordMap, "word", {"write", "word40", "0x12345"}), "does not fit the 16-bit register 'word40'");
  expectFailure(tool(kWordMap, "word", {"write", "status42", "1"}), "register 'status42' is read-only");
  EXPECT_EQ(0x0f0fu, busyboxGet(0x40, "w"));
  EXPECT_EQ(0x7777u, busyboxGet(0x42, "w"));

  // Forced, the word flavour sends the low 16 bits.
  expectSuccess(tool(kWordMap, "word", {"-f", "write", "word40", "0x12345"}));
  expectSuccess(tool(kWordMap, "word", {"--force", "write", "status42", "0x0001"}));
  EXPECT_EQ(0x2345u, busyboxGet(0x40, "w"));
  EXPECT_EQ(0x0001u, busyboxGet(0x42, "w"));
}

// The stub's low bytes of cells 0x00 - 0xff, as the block flavour sees them.
struct StubLowBytes {
  std::array<unsigned, 256> cell{};

  void blockWrite(unsigned command, std::vector<unsigned> const& bytes) {
    for (size_t i = 0; i < bytes.size() && command + i < cell.size(); ++i) cell[command + i] = bytes[i] & 0xff;
  }
  // Four bytes from @p command, the first received most significant.
  unsigned blockRead4(unsigned command) const {
    unsigned value = 0;
    for (unsigned i = 0; i < 4; ++i) value = (value << 8) | cell[command + i];
    return value;
  }
};

TEST_F(TarnregOnStub, BlockWriteThenReadBackFollowsTheChipModel) {
  unsigned constexpr kRegister = 0x6040;
  unsigned constexpr kCommand = kRegister >> 8;
  StubLowBytes stub;
  for (unsigned i = 0; i < 6; ++i) {
    busyboxSet(kCommand + i, 0xee00 | (0xa0 + i), "w");
    stub.cell[kCommand + i] = 0xa0 + i;
  }

  for (unsigned value : {0x12345678u, 0xfedcba98u}) {
    // The default flavour is the block flavour.
    ToolRun const write = tool(kBlockMap, value == 0x12345678u ? nullptr : "block", {"write", "block6040", hex(value)});
    expectSuccess(write);
    // Command 0x60 carries the register's low address byte, then the value most
    // significant byte first.
    stub.blockWrite(kCommand, {kRegister & 0xff, value >> 24, value >> 16, value >> 8, value});
    for (unsigned i = 0; i < 6; ++i) {
      EXPECT_EQ(stub.cell[kCommand + i], busyboxGet(kCommand + i, "b")) << "cell " << hex(kCommand + i);
      EXPECT_EQ(0xeeu, busyboxGet(kCommand + i, "w") >> 8) << "high byte of cell " << hex(kCommand + i);
    }

    // The read sets the pointer (one block byte at command 0x60) and reads four
    // bytes there: the stub has no pointer, so it returns its cells.
    ToolRun const read = tool(kBlockMap, "block", {"--json", "read", "block6040"});
    expectSuccess(read);
    stub.blockWrite(kCommand, {kRegister & 0xff});
    unsigned const expected = stub.blockRead4(kCommand);
    EXPECT_EQ(expected, Json::parse(read.out).at("value")) << read.out;
    EXPECT_EQ((0x40u << 24) | (value >> 8), expected);
  }
}

TEST_F(TarnregOnStub, DumpReadsEveryRegisterOfTheMapInAddressOrder) {
  busyboxSet(0x40, 0x1111, "w");
  busyboxSet(0x41, 0x2222, "w");
  busyboxSet(0x42, 0xabcd, "w");
  ToolRun const dump = tool(kWordMap, "word", {"dump"});
  expectSuccess(dump);
  auto const dumped = lines(dump.out);
  ASSERT_EQ(4u, dumped.size()) << dump.out;
  EXPECT_EQ((std::vector<std::string>{"address", "name", "value"}), words(dumped[0]));
  EXPECT_EQ((std::vector<std::string>{"0x00000040", "word40", "0x00001111"}), words(dumped[1]));
  EXPECT_EQ((std::vector<std::string>{"0x00000041", "word41", "0x00002222"}), words(dumped[2]));
  EXPECT_EQ((std::vector<std::string>{"0x00000042", "status42", "0x0000abcd"}), words(dumped[3]));

  busyboxSet(0x41, 0x3333, "w");
  ToolRun const json = tool(kWordMap, "word", {"--json", "dump"});
  expectSuccess(json);
  EXPECT_EQ(Json::parse(R"([{"name": "word40", "address": 64, "value": 4369},
                            {"name": "word41", "address": 65, "value": 13107},
                            {"name": "status42", "address": 66, "value": 43981}])"),
            Json::parse(json.out));
}

TEST_F(TarnregOnStub, AnAddressWithoutAChipFailsWithOneLine) {
  // The stub answers only at 0x50: the kernel refuses transfers to 0x51 (ENODEV).
  busyboxSet(0x40, 0x4242, "w");
  expectFailure(tool(kWordMap, "word", {"read", "word40"}, 0x51),
                "register 'word40': I2C word read from address 0x40 failed: No such device");
  expectFailure(tool(kWordMap, "word", {"write", "word40", "0x1"}, 0x51),
                "register 'word40': I2C word write from address 0x40 failed: No such device");
  expectFailure(tool(kWordMap, "word", {"--json", "dump"}, 0x51), "I2C word read from address 0x40 failed");
  // The block read fails at its first transfer, the one that sets the pointer.
  expectFailure(tool(kBlockMap, "block", {"read", "block6040"}, 0x51),
                "register 'block6040': Error writing address 0x6040 on FD");
  EXPECT_EQ(0x4242u, busyboxGet(0x40, "w")) << "nothing reached the chip at 0x50";

  // The word flavour's register address is one byte: 0x6040 is refused before any transfer.
  expectFailure(tool(kBlockMap, "word", {"read", "block6040"}), "Register address 0x6040 is out of range!");
}

class TarnregOnEdu : public TarnregVm {
protected:
  void SetUp() override {
    TarnregVm::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    std::string const address = TarnVm::findPciDevice(0x1234, 0x11e8);
    ASSERT_FALSE(address.empty()) << "no edu PCI device (QEMU -device edu)";
    resource_ = "/sys/bus/pci/devices/" + address + "/resource0";
  }

  ToolRun tool(std::vector<std::string> const& command) {
    std::vector<std::string> args{"--map", kEduMap, "--pci", resource_};
    args.insert(args.end(), command.begin(), command.end());
    return run(args);
  }

  std::string resource_;
};

TEST_F(TarnregOnEdu, ReadsTheIdentificationAndTheInverseOfAWrite) {
  ToolRun const ident = tool({"read", "ident"});
  expectSuccess(ident);
  EXPECT_EQ("0x010000ed\n", ident.out);

  expectSuccess(tool({"write", "liveness", "0x0f0f0f0f"}));
  EXPECT_EQ("0xf0f0f0f0\n", tool({"read", "liveness"}).out);

  expectSuccess(tool({"write", "liveness", "305419896"}));
  ToolRun const inverse = tool({"--json", "read", "liveness"});
  expectSuccess(inverse);
  EXPECT_EQ(Json::parse(R"({"name": "liveness", "address": 4, "value": 3989547399})"), Json::parse(inverse.out))
      << "the inverse of 0x12345678 is 0xedcba987";

  ToolRun const dump = tool({"dump"});
  expectSuccess(dump);
  auto const dumped = lines(dump.out);
  ASSERT_EQ(3u, dumped.size()) << dump.out;
  EXPECT_EQ((std::vector<std::string>{"0x00000000", "ident", "0x010000ed"}), words(dumped[1]));
  EXPECT_EQ((std::vector<std::string>{"0x00000004", "liveness", "0xedcba987"}), words(dumped[2]));
}

TEST_F(TarnregOnEdu, TheReadOnlyIdentificationIsRefusedWithoutTouchingTheDevice) {
  expectSuccess(tool({"write", "liveness", "0xf0f0f0f0"}));
  expectFailure(tool({"write", "ident", "0"}), "register 'ident' is read-only");
  EXPECT_EQ("0x010000ed\n", tool({"read", "ident"}).out);
  EXPECT_EQ("0x0f0f0f0f\n", tool({"read", "liveness"}).out);
}

}  // namespace
