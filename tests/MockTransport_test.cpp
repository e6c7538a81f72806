// The mock transport: values by address, the dump file it rewrites and loads, the base's
// callback defaults and diagnostic dump, and the dump file's handling in a shared directory.
#include "TarnRegFile/MockTransportMethodImpl.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using TarnRegFile::MockTransportMethodImpl;
using TarnRegFile::RegCallbackStatus;

class TempDir {
public:
  TempDir() {
    char pattern[] = "/tmp/tarn-mock-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::string path(std::string const& name) const { return path_ + "/" + name; }
  std::string file(std::string const& name, std::string const& text) const {
    std::ofstream(path(name)) << text;
    return path(name);
  }

private:
  std::string path_;
};

std::string slurp(std::string const& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// The header line, then the data lines as a set (their order is not fixed).
std::set<std::string> dataLines(std::string const& text, std::string* header = nullptr) {
  std::istringstream in(text);
  std::string line;
  std::set<std::string> lines;
  bool first = true;
  while (std::getline(in, line)) {
    if (first) {
      if (header) *header = line;
      first = false;
    } else {
      lines.insert(line);
    }
  }
  return lines;
}

constexpr char const* kCsv =
    "number,name,type,writeable,width\n"
    "0,id,const,false,32\n"
    "3,r,cfg,true,32\n"
    "5,ctrl,ctl,true,8\n";

struct Fixture : ::testing::Test {
  TempDir dir;
  std::string csv = dir.file("chip.csv", kCsv);
  std::string dump = dir.path("dump.csv");
};

using MockTransport = Fixture;

TEST_F(MockTransport, FirstReadIsZeroAndListedInTheDump) {
  MockTransportMethodImpl mock(csv.c_str(), nullptr, dump);
  EXPECT_EQ(mock.dumpPath(), dump);
  EXPECT_EQ(mock.regRead("ctrl"), 0u);
  std::string header;
  EXPECT_EQ(dataLines(slurp(dump), &header), std::set<std::string>{"20,0"});
  EXPECT_EQ(header, "Address, Value");
}

TEST_F(MockTransport, WritesAreStoredByScaledAddressAndSurviveIntoTheNextInstance) {
  {
    MockTransportMethodImpl mock(csv.c_str(), nullptr, dump);
    mock.regWrite("r", 5);
    EXPECT_EQ(mock.regRead("r"), 5u);
    mock.regWrite("id", 0xFFFFFFFF);
    EXPECT_EQ(slurp(dump).substr(0, 15), "Address, Value\n");
    EXPECT_EQ(dataLines(slurp(dump)), (std::set<std::string>{"12,5", "0,4294967295"}));
    mock.regWrite("id", 1);  // a shorter file: nothing of the longer one may remain
    EXPECT_EQ(dataLines(slurp(dump)), (std::set<std::string>{"12,5", "0,1"}));
    mock.regWrite("id", 0xFFFFFFFF);
  }
  MockTransportMethodImpl again(csv.c_str(), nullptr, dump);
  EXPECT_EQ(again.regRead("r"), 5u);
  EXPECT_EQ(again.regRead("id"), 0xFFFFFFFFu);
}

TEST_F(MockTransport, NamesSharingAnAddressShareAValue) {
  std::string const shared = dir.file("shared.csv",
                                      "number,name,type,writeable,width\n"
                                      "2,a,cfg,true,32\n"
                                      "2,b,cfg,true,32\n");
  MockTransportMethodImpl mock(shared.c_str(), nullptr, dump);
  mock.regWrite("a", 42);
  EXPECT_EQ(mock.regRead("b"), 42u);
}

TEST_F(MockTransport, UnknownNameThrowsAndLeavesTheFileUntouched) {
  MockTransportMethodImpl mock(csv.c_str(), nullptr, dump);
  mock.regWrite("r", 7);
  std::string const before = slurp(dump);
  EXPECT_THROW(mock.regRead("nope"), std::runtime_error);
  EXPECT_THROW(mock.regWrite("nope", 1), std::runtime_error);
  EXPECT_EQ(slurp(dump), before);
  EXPECT_EQ(mock.values().size(), 1u);
}

TEST_F(MockTransport, LoadingSkipsBlankAndCommaLessLinesAndKeepsTheFirstOfAnAddress) {
  dir.file("dump.csv",
           "whatever header\n"
           "\n"
           "no comma here\n"
           "12, 34\n"
           "12,99\n"
           "20,7 trailing\r\n"
           "0,1");
  MockTransportMethodImpl mock(csv.c_str(), nullptr, dump);
  EXPECT_EQ(mock.regRead("r"), 34u);
  EXPECT_EQ(mock.regRead("ctrl"), 7u);
  EXPECT_EQ(mock.regRead("id"), 1u);
  EXPECT_EQ(mock.values().size(), 3u);
}

TEST_F(MockTransport, CorruptDumpLineStopsConstruction) {
  struct Row {
    char const* line;
    bool outOfRange;
  };
  for (Row const row : {Row{"x,1", false}, Row{"1,", false}, Row{"4,y", false}, Row{"4,4294967296", true},
                        Row{"4294967296,1", true}, Row{"4,-1", true}}) {
    SCOPED_TRACE(row.line);
    dir.file("dump.csv", std::string("Address, Value\n") + row.line + "\n");
    try {
      MockTransportMethodImpl mock(csv.c_str(), nullptr, dump);
      ADD_FAILURE() << "constructed";
    } catch (std::out_of_range const& e) {
      EXPECT_TRUE(row.outOfRange);
      EXPECT_STREQ(e.what(), "stoul");
    } catch (std::invalid_argument const& e) {
      EXPECT_FALSE(row.outOfRange);
      EXPECT_STREQ(e.what(), "stoul");
    }
  }
}

TEST_F(MockTransport, UnwritableDumpFileDoesNotFailTheAccess) {
  std::string const nowhere = dir.path("missing-dir/dump.csv");
  MockTransportMethodImpl mock(csv.c_str(), nullptr, nowhere);
  mock.regWrite("r", 3);
  EXPECT_EQ(mock.regRead("r"), 3u);
  EXPECT_FALSE(std::filesystem::exists(nowhere));
}

TEST_F(MockTransport, CreatedDumpFileIsNotWritableByOthers) {
  mode_t const old = ::umask(0);
  {
    MockTransportMethodImpl mock(csv.c_str(), nullptr, dump);
    mock.regWrite("r", 1);
  }
  ::umask(old);
  struct stat st {};
  ASSERT_EQ(::stat(dump.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST_F(MockTransport, ModelBackedMockUsesTheModelsAddresses) {
  auto model = Hardware::TarnRegFile::HardwareRegisterFile::HardwareRegisterFileIs("m");
  model->registerIs({"status", Hardware::TarnRegFile::HardwareRegisterType::sts, false, 0x100, 32, 32});
  MockTransportMethodImpl mock(nullptr, model, dump);
  mock.regWrite("status", 9);
  EXPECT_EQ(dataLines(slurp(dump)), std::set<std::string>{"256,9"});
  EXPECT_THROW(MockTransportMethodImpl(nullptr, nullptr, dump), std::runtime_error);
}

// ---------------------------------------------------------------- base defaults through the mock

TEST_F(MockTransport, CallbackDefaults) {
  MockTransportMethodImpl mock(csv.c_str(), nullptr, dump);
  mock.regReadWithCallback("r", nullptr);
  EXPECT_TRUE(mock.values().empty());  // no callback: the register is not read
  EXPECT_FALSE(std::filesystem::exists(dump));

  mock.regWriteWithCallback("r", 11, nullptr);  // no callback: still written
  EXPECT_EQ(mock.values().at(12), 11u);

  std::vector<std::string> calls;
  mock.regWriteWithCallback("r", 12, [&](char const* n, RegCallbackStatus s) {
    calls.push_back(std::string(n) + ":" + std::to_string(s));
  });
  mock.regReadWithCallback("r", [&](char const* n, RegCallbackStatus s, uint32_t v) {
    calls.push_back(std::string(n) + ":" + std::to_string(s) + ":" + std::to_string(v));
  });
  EXPECT_EQ(calls, (std::vector<std::string>{"r:1", "r:1:12"}));

  // A failing write never reaches the callback.
  EXPECT_THROW(mock.regWriteWithCallback("nope", 1, [&](char const*, RegCallbackStatus) { calls.push_back("x"); }),
               std::runtime_error);
  EXPECT_THROW(mock.regReadWithCallback("nope", [&](char const*, RegCallbackStatus, uint32_t) { calls.push_back("y"); }),
               std::runtime_error);
  EXPECT_EQ(calls.size(), 2u);
}

std::string dumpAllText(TarnRegFile::BaseTransportMethodImpl& impl) {
  char* buffer = nullptr;
  size_t size = 0;
  std::FILE* out = ::open_memstream(&buffer, &size);
  impl.dumpAll(out);
  std::fclose(out);
  std::string text(buffer, size);
  std::free(buffer);
  return text;
}

TEST_F(MockTransport, DumpAllPrintsEveryRegisterPaddedWithHexValue) {
  MockTransportMethodImpl mock(csv.c_str(), nullptr, dump);
  mock.regWrite("r", 0xBEEF);
  std::set<std::string> lines;
  std::istringstream in(dumpAllText(mock));
  for (std::string line; std::getline(in, line);) lines.insert(line);
  auto padded = [](std::string name, std::string value) {
    name.resize(40, ' ');
    return name + " " + value;
  };
  EXPECT_EQ(lines, (std::set<std::string>{padded("id", "0x0"), padded("r", "0xbeef"), padded("ctrl", "0x0")}));

  auto empty = Hardware::TarnRegFile::HardwareRegisterFile::HardwareRegisterFileIs("empty");
  MockTransportMethodImpl none(nullptr, empty, dir.path("other.csv"));
  EXPECT_EQ(dumpAllText(none), "");
}

// ---------------------------------------------------------------- the dump file in a shared directory

TEST_F(MockTransport, PlantedFifoNeitherBlocksNorIsUsed) {
  ASSERT_EQ(::mkfifo(dump.c_str(), 0600), 0);
  MockTransportMethodImpl mock(csv.c_str(), nullptr, dump);
  mock.regWrite("r", 1);
  EXPECT_EQ(mock.regRead("r"), 1u);
  struct stat st {};
  ASSERT_EQ(::lstat(dump.c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

TEST_F(MockTransport, FileOfAnotherUserIsNeitherLoadedNorRewritten) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to give a file to another user";
  std::string const content = "Address, Value\n12,77\n";
  dir.file("dump.csv", content);
  ASSERT_EQ(::chown(dump.c_str(), 65534, 65534), 0);
  MockTransportMethodImpl mock(csv.c_str(), nullptr, dump);
  EXPECT_EQ(mock.regRead("r"), 0u);
  mock.regWrite("r", 5);
  EXPECT_EQ(slurp(dump), content);
}

// Plants a symbolic link at the fixed dump path for the life of the object and puts
// back a dump file that was there before. Other test programs may use the path at
// the same time, so a file that reappears meanwhile is moved aside again.
class PlantedLink {
public:
  PlantedLink(std::string const& target, std::string backup) : backup_(std::move(backup)) {
    for (int attempt = 0; attempt < 50; ++attempt) {
      if (::rename(MockTransportMethodImpl::kDumpPath, backup_.c_str()) == 0)
        hadFile_ = true;
      else if (errno != ENOENT) {
        reason("cannot move the existing dump file aside", errno);
        return;
      }
      if (::symlink(target.c_str(), MockTransportMethodImpl::kDumpPath) == 0) {
        planted_ = true;
        return;
      }
      if (errno != EEXIST) {
        reason("cannot plant the link", errno);
        return;
      }
    }
    reason_ = "the dump path kept being recreated";
  }
  ~PlantedLink() {
    if (planted_) ::unlink(MockTransportMethodImpl::kDumpPath);
    if (hadFile_) ::rename(backup_.c_str(), MockTransportMethodImpl::kDumpPath);
  }
  bool planted() const { return planted_; }
  std::string const& why() const { return reason_; }

private:
  void reason(char const* what, int err) { reason_ = std::string(what) + ": " + std::strerror(err); }
  std::string backup_;
  bool hadFile_ = false;
  bool planted_ = false;
  std::string reason_;
};

TEST_F(MockTransport, FixedDumpPathDoesNotFollowAPlantedLink) {
  std::string const content = "Address, Value\n12,77\n";
  std::string const victim = dir.file("victim", content);
  PlantedLink link(victim, dir.path("previous-dump"));
  if (!link.planted()) GTEST_SKIP() << link.why();

  MockTransportMethodImpl mock(csv.c_str(), nullptr);
  EXPECT_STREQ(mock.dumpPath().c_str(), "/tmp/MockTarnDebugReg.csv");
  EXPECT_EQ(mock.regRead("r"), 0u);  // the file behind the link was not loaded
  mock.regWrite("r", 5);             // and is not written through the link
  EXPECT_EQ(mock.regRead("r"), 5u);
  EXPECT_EQ(slurp(victim), content);
  struct stat st {};
  ASSERT_EQ(::lstat(MockTransportMethodImpl::kDumpPath, &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
}

}  // namespace
