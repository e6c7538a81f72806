// The mock transport: values by address, the dump file it rewrites and loads, the base's
// callback defaults and diagnostic dump, and the dump file's handling in a shared directory.
#include "TarnRegFile/MockTransportMethodImpl.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

namespace {

using TarnRegFile::DumpFileError;
using TarnRegFile::MockTransportMethodImpl;
using TarnRegFile::RegCallbackStatus;
using Lines = std::set<std::string>;

std::string slurp(std::string const& path) {
  std::stringstream s;
  s << std::ifstream(path).rdbuf();
  return s.str();
}

// The lines of @p text as a set: the dump file's data lines come in no fixed order.
Lines lineSet(std::string const& text) {
  std::istringstream in(text);
  Lines lines;
  for (std::string line; std::getline(in, line);) lines.insert(line);
  return lines;
}

constexpr char const* kHeader = "Address, Value";

// A private directory holding a map (id at 0, r and its alias at 12, ctrl at 20) and the
// dump file's place.
struct MockTransport : ::testing::Test {
  void SetUp() override {
    char pattern[] = "/tmp/tarn-mock-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir = pattern;
    csv = file("chip.csv",
               "number,name,type,writeable,width\n0,id,const,false,32\n3,r,cfg,true,32\n5,ctrl,ctl,true,8\n"
               "3,alias,cfg,true,32\n");
    dump = dir + "/dump.csv";
  }
  void TearDown() override { std::filesystem::remove_all(dir); }
  std::string file(std::string const& name, std::string const& text) const {
    std::ofstream(dir + "/" + name) << text;
    return dir + "/" + name;
  }
  MockTransportMethodImpl mock() const { return MockTransportMethodImpl(csv.c_str(), nullptr, dump); }
  std::string dumpAllText(TarnRegFile::BaseTransportMethodImpl& impl) const {
    std::FILE* out = std::fopen((dir + "/dumpAll").c_str(), "w");
    impl.dumpAll(out);
    std::fclose(out);
    return slurp(dir + "/dumpAll");
  }

  std::string dir, csv, dump;
};

TEST_F(MockTransport, AccessesAreKeptByScaledAddressInTheDumpAndSurviveIntoTheNextInstance) {
  {
    auto m = mock();
    EXPECT_EQ(m.regRead("ctrl"), 0u);  // never written: 0, and listed from now on
    EXPECT_EQ(slurp(dump), "Address, Value\n20,0\n");
    m.regWrite("r", 5);
    EXPECT_EQ(m.regRead("alias"), 5u);  // one address, one value
    m.regWrite("id", 0xFFFFFFFF);
    EXPECT_EQ(lineSet(slurp(dump)), (Lines{kHeader, "20,0", "12,5", "0,4294967295"}));
    m.regWrite("id", 1);  // a shorter file: nothing of the longer one may remain
    EXPECT_EQ(lineSet(slurp(dump)), (Lines{kHeader, "20,0", "12,5", "0,1"}));
    m.regWrite("id", 0xFFFFFFFF);
  }
  auto again = mock();
  EXPECT_EQ(again.regRead("r"), 5u);
  EXPECT_EQ(again.regRead("id"), 0xFFFFFFFFu);
}

TEST_F(MockTransport, UnknownNameThrowsAndLeavesTheFileUntouched) {
  auto m = mock();
  m.regWrite("r", 7);
  std::string const before = slurp(dump);
  EXPECT_THROW(m.regRead("nope"), std::runtime_error);
  EXPECT_THROW(m.regWrite("nope", 1), std::runtime_error);
  EXPECT_EQ(slurp(dump), before);
  EXPECT_EQ(m.values().size(), 1u);
}

TEST_F(MockTransport, LoadingSkipsBlankAndCommaLessLinesAndKeepsTheFirstOfAnAddress) {
  file("dump.csv", "whatever header\n\nno comma here\n12, 34\n12,99\n20,7 trailing\r\n0,1");
  auto m = mock();
  EXPECT_EQ(m.regRead("r"), 34u);
  EXPECT_EQ(m.regRead("ctrl"), 7u);
  EXPECT_EQ(m.regRead("id"), 1u);
  EXPECT_EQ(m.values().size(), 3u);
}

TEST_F(MockTransport, CorruptDumpLineStopsConstruction) {
  for (auto [line, outOfRange] : {std::pair{"x,1", false}, std::pair{"1,", false}, std::pair{"4,y", false},
                                  std::pair{"4,4294967296", true}, std::pair{"4294967296,1", true},
                                  std::pair{"4,-1", true}}) {
    SCOPED_TRACE(line);
    file("dump.csv", std::string("Address, Value\n") + line + "\n");
    try {
      mock();
      ADD_FAILURE() << "constructed";
    } catch (std::logic_error const& e) {
      EXPECT_STREQ(e.what(), "stoul");
      EXPECT_EQ(dynamic_cast<std::out_of_range const*>(&e) != nullptr, outOfRange);
      auto const* dumpError = dynamic_cast<DumpFileError const*>(&e);
      ASSERT_NE(dumpError, nullptr);
      EXPECT_EQ(dumpError->path(), dump);
      EXPECT_EQ(dumpError->line(), 2u);
    }
  }
}

TEST_F(MockTransport, CreatedDumpFileIsNotWritableByOthersAndAnUnwritableOneFailsNothing) {
  mode_t const old = ::umask(0);
  mock().regWrite("r", 1);
  ::umask(old);
  struct stat st {};
  ASSERT_EQ(::stat(dump.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);

  dump = dir + "/missing-dir/dump.csv";
  auto m = mock();
  m.regWrite("r", 3);
  EXPECT_EQ(m.regRead("r"), 3u);
  EXPECT_FALSE(std::filesystem::exists(dump));
}

TEST_F(MockTransport, ModelBackedMockUsesTheModelsAddresses) {
  auto model = Hardware::TarnRegFile::HardwareRegisterFile::HardwareRegisterFileIs("m");
  model->registerIs({"status", Hardware::TarnRegFile::HardwareRegisterType::sts, false, 0x100, 32, 32});
  MockTransportMethodImpl(nullptr, model, dump).regWrite("status", 9);
  EXPECT_EQ(lineSet(slurp(dump)), (Lines{kHeader, "256,9"}));
  EXPECT_THROW(MockTransportMethodImpl(nullptr, nullptr, dump), std::runtime_error);
}

TEST_F(MockTransport, CallbackDefaults) {
  auto m = mock();
  m.regReadWithCallback("r", nullptr);
  EXPECT_TRUE(m.values().empty());  // no callback: the register is not read
  EXPECT_FALSE(std::filesystem::exists(dump));
  m.regWriteWithCallback("r", 11, nullptr);  // no callback: still written
  EXPECT_EQ(m.values().at(12), 11u);

  std::vector<std::string> calls;
  auto const write = [&](char const* n, RegCallbackStatus s) { calls.push_back(std::string(n) + ":" + std::to_string(s)); };
  auto const read = [&](char const* n, RegCallbackStatus s, uint32_t v) {
    calls.push_back(std::string(n) + ":" + std::to_string(s) + ":" + std::to_string(v));
  };
  m.regWriteWithCallback("r", 12, write);
  m.regReadWithCallback("r", read);
  // A failing access never reaches the callback.
  EXPECT_THROW(m.regWriteWithCallback("nope", 1, write), std::runtime_error);
  EXPECT_THROW(m.regReadWithCallback("nope", read), std::runtime_error);
  EXPECT_EQ(calls, (std::vector<std::string>{"r:1", "r:1:12"}));
}

TEST_F(MockTransport, DumpAllPrintsEveryRegisterPaddedWithHexValue) {
  auto m = mock();
  m.regWrite("r", 0xBEEF);
  auto const padded = [](std::string name, std::string const& value) {
    name.resize(40, ' ');
    return name + " " + value;
  };
  EXPECT_EQ(lineSet(dumpAllText(m)), (Lines{padded("id", "0x0"), padded("r", "0xbeef"), padded("alias", "0xbeef"),
                                            padded("ctrl", "0x0")}));
  MockTransportMethodImpl none(nullptr, Hardware::TarnRegFile::HardwareRegisterFile::HardwareRegisterFileIs("empty"),
                               dir + "/other.csv");
  EXPECT_EQ(dumpAllText(none), "");
}

// The dump file lives in a shared directory: what others planted there is not followed,
// opened as a file, loaded or rewritten.
TEST_F(MockTransport, PlantedLinkAndFifoAreNeitherFollowedNorUsed) {
  std::string const content = "Address, Value\n12,77\n";
  std::string const victim = file("victim", content);
  ASSERT_EQ(::symlink(victim.c_str(), dump.c_str()), 0);
  auto linked = mock();
  EXPECT_EQ(linked.regRead("r"), 0u);  // the file behind the link was not loaded
  linked.regWrite("r", 5);             // and is not written through the link
  EXPECT_EQ(linked.regRead("r"), 5u);
  EXPECT_EQ(slurp(victim), content);

  dump = dir + "/fifo";
  ASSERT_EQ(::mkfifo(dump.c_str(), 0600), 0);
  auto fifo = mock();  // would block on opening a FIFO without a writer
  fifo.regWrite("r", 1);
  EXPECT_EQ(fifo.regRead("r"), 1u);
  struct stat st {};
  ASSERT_EQ(::lstat(dump.c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

TEST_F(MockTransport, FileOfAnotherUserIsNeitherLoadedNorRewritten) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to give a file to another user";
  std::string const content = "Address, Value\n12,77\n";
  file("dump.csv", content);
  ASSERT_EQ(::chown(dump.c_str(), 65534, 65534), 0);
  auto m = mock();
  EXPECT_EQ(m.regRead("r"), 0u);
  m.regWrite("r", 5);
  EXPECT_EQ(slurp(dump), content);
}

}  // namespace
