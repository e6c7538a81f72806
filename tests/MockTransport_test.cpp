// The mock transport: values by address, the dump file it rewrites and loads, and the
// dump file's safety in a shared directory.
#include "TarnRegFile/MockTransportMethodImpl.h"

#include "support/ScratchFs.h"
#include "support/ToolRun.h"

#include <sys/stat.h>

#include <functional>
#include <set>
#include <stdexcept>

namespace {

using TarnRegFile::MockTransportMethodImpl;
using TarnTest::slurp;
using Lines = std::set<std::string>;

// The dump file's data lines come in no fixed order.
Lines lineSet(std::string const& text) {
  std::istringstream in(text);
  Lines lines;
  for (std::string line; std::getline(in, line);) lines.insert(line);
  return lines;
}

long entries(std::string const& dir) {
  std::filesystem::directory_iterator const it(dir);
  return std::distance(begin(it), end(it));
}

// A private directory with a map (id at 0, r and its alias at 12, ctrl at 20) and the dump file's place.
struct MockTransport : ::testing::Test {
  std::string file(std::string const& name, std::string const& text) const {
    std::ofstream(dir + "/" + name) << text;
    return dir + "/" + name;
  }
  MockTransportMethodImpl mock() const { return MockTransportMethodImpl(csv.c_str(), nullptr, dump); }

  TarnTest::TempDir tmp;
  std::string const dir = tmp.path, csv = file("chip.csv", "number,name,type,writeable,width\n0,id,const,false,32\n"
                                                           "3,r,cfg,true,32\n5,ctrl,ctl,true,8\n3,alias,cfg,true,32\n");
  std::string dump = dir + "/dump.csv";
};

TEST_F(MockTransport, AccessesAreKeptByScaledAddressInTheDumpAndSurviveIntoTheNextInstance) {
  {
    auto m = mock();
    EXPECT_EQ(m.regRead("ctrl"), 0u);  // never written: 0, and listed from now on
    EXPECT_EQ(slurp(dump), "Address, Value\n20,0\n");
    m.regWrite("r", 5);
    EXPECT_EQ(m.regRead("alias"), 5u);  // one address, one value
    m.regWrite("id", 0xFFFFFFFF);
    m.regWrite("id", 1);  // a shorter file: nothing of the longer one may remain
    EXPECT_EQ(lineSet(slurp(dump)), (Lines{"Address, Value", "20,0", "12,5", "0,1"}));
    m.regWrite("id", 0xFFFFFFFF);
  }
  EXPECT_EQ(entries(dir), 2) << "the spare file was left behind";
  auto again = mock();
  EXPECT_EQ(again.regRead("r"), 5u);
  EXPECT_EQ(again.regRead("id"), 0xFFFFFFFFu);
}

TEST_F(MockTransport, LoadingIsLaxButANonNumberStopsConstruction) {
  file("dump.csv", "whatever header\n\nno comma here\n12, 34\n12,99\n20,7 trailing\r\n0,1");
  auto m = mock();  // blank and comma-less lines skipped, the first line of an address wins
  EXPECT_EQ(m.values(), (std::unordered_map<uint32_t, uint32_t>{{12, 34}, {20, 7}, {0, 1}}));

  for (char const* line : {"x,1", "1,", "4,4294967296", "4294967296,1", "4,-1"}) {
    SCOPED_TRACE(line);
    file("dump.csv", std::string("Address, Value\n") + line + "\n");
    try {
      mock();
      ADD_FAILURE() << "constructed";
    } catch (TarnRegFile::DumpFileError const& e) {
      EXPECT_EQ(e.path(), dump);
      EXPECT_EQ(e.line(), 2u);
    }
  }
}

TEST_F(MockTransport, OverAModelWithoutAMap) {
  auto model = Hardware::TarnRegFile::HardwareRegisterFile::HardwareRegisterFileIs("m");
  model->registerIs({"status", Hardware::TarnRegFile::HardwareRegisterType::sts, false, 0x100, 32, 32});
  MockTransportMethodImpl(nullptr, model, dump).regWrite("status", 9);
  EXPECT_EQ(lineSet(slurp(dump)), (Lines{"Address, Value", "256,9"}));
  EXPECT_THROW(MockTransportMethodImpl(nullptr, nullptr, dump), std::runtime_error);
}

// The dump file lives in a shared directory: what is planted there, belongs to someone
// else or was made read-only is neither written through nor replaced, and the access
// still succeeds; dumpErrno() says why the file was left alone.
TEST_F(MockTransport, RewriteLeavesAloneWhatItMayNotReplace) {
  std::string const content = "Address, Value\n12,77\n";
  struct Case {
    char const* what;
    std::function<void()> plant;  // makes the dump path what the case is about
    int error;
  };
  std::string const victim = dir + "/victim";
  std::vector<Case> const cases{
      {"symbolic link", [&] { ASSERT_EQ(::symlink(victim.c_str(), dump.c_str()), 0); }, ELOOP},
      {"hard link", [&] { ASSERT_EQ(::link(victim.c_str(), dump.c_str()), 0); }, EMLINK},
      {"FIFO", [&] { ASSERT_EQ(::mkfifo(dump.c_str(), 0600), 0); }, EPERM},  // opening it would block
      {"read-only file", [&] { file("dump.csv", content), ::chmod(dump.c_str(), 0444); }, EACCES},
      {"another user's file",
       [&] {
         if (::geteuid() != 0) GTEST_SKIP() << "needs root to give a file to another user";
         file("dump.csv", content), ::chown(dump.c_str(), 65534, 65534);
       },
       EPERM},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.what);
    file("victim", content);
    std::filesystem::remove(dump = dir + "/dump.csv");
    c.plant();
    if (IsSkipped()) continue;
    bool const regular = std::filesystem::is_regular_file(dump);  // a FIFO is not read: that would block
    std::string const before = regular ? slurp(dump) : "";
    auto m = mock();
    m.regWrite("r", 5);
    EXPECT_EQ(m.regRead("r"), 5u);
    EXPECT_EQ(m.dumpErrno(), c.error);
    if (regular) {
      EXPECT_EQ(slurp(dump), before);
    }
  }
}

TEST_F(MockTransport, RewriteKeepsTheModeOfTheFile) {
  mode_t const old = ::umask(0);
  mock().regWrite("r", 1);
  EXPECT_EQ(std::filesystem::status(dump).permissions(), std::filesystem::perms(0644));  // not writable by others
  ::umask(022);
  ::chmod(dump.c_str(), 0640);
  mock().regWrite("r", 2);
  EXPECT_EQ(std::filesystem::status(dump).permissions(), std::filesystem::perms(0640));
  ::umask(old);
}

// A rewrite that runs out of space leaves the old file whole, not a file cut off in
// its last line (which would load as another value). The file is just short of a page,
// so that its next version needs one more than the file system has left.
TEST_F(MockTransport, DiskFullLeavesTheOldFileWhole) {
  std::string const fs = dir + "/fs";
  std::filesystem::create_directory(fs);
  TarnTest::ScratchFs const scratch(fs, 64 * 1024);
  if (!scratch.whyNot().empty()) GTEST_SKIP() << scratch.whyNot();
  dump = fs + "/dump.csv";
  std::string text = "Address, Value\n";
  for (int address = 10000; text.size() + 17 < 4096; ++address) text += std::to_string(address) + ",4000000000\n";
  file("fs/dump.csv", text);
  scratch.fillUp();
  auto m = mock();
  m.regWrite("r", 4000000000);
  EXPECT_EQ(m.dumpErrno(), ENOSPC);
  EXPECT_EQ(slurp(dump), text);
  EXPECT_EQ(entries(fs), 2) << "a temporary file was left";
}

}  // namespace
