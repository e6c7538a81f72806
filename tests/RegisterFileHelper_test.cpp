// Register lookups from a CSV map or a register-file model, the model's own index, and the name set.
#include "TarnRegFile/RegisterFile.h"
#include "TarnRegFile/RegisterFileHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using Hardware::TarnRegFile::HardwareRegister;
using Hardware::TarnRegFile::HardwareRegisterFile;
using T = Hardware::TarnRegFile::HardwareRegisterType;
using TarnRegFile::RegFileHelper;
using TarnRegFile::RegList;

// One register of every type; "ctrl" twice: the first record wins, and address 12 is claimed by it too.
constexpr char const* kCsv =
    "number,name,type,writeable,width\n"
    "0,id,const,false,32\n1,ctrl,ctl,true,8\n2,status,sts,false,16\n3,ctrl,cfg,true,32\n"
    "4,res,reserved,true,32\n5,cnt,counter,true,32\n6,conf,cfg,true,32\n7,odd,bogus,true,32\n";

auto throwsError(std::string const& message) { return testing::ThrowsMessage<std::runtime_error>(message); }

struct RegFileHelperTest : ::testing::Test {
  void SetUp() override { ASSERT_TRUE(::mkdtemp(dir_)); }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string file(std::string const& text) const {
    std::string const p = std::string(dir_) + "/chip.csv";
    std::ofstream(p) << text;
    return p;
  }
  char dir_[32] = "/tmp/tarn-helper-XXXXXX";
};

// Both sources answer alike: a CSV map (types converted, accessed 32 bits wide) and a
// model (made from the same map's index); the CSV file wins when both are given.
TEST_F(RegFileHelperTest, CsvMapAndModelAnswerAlike) {
  auto const csv = RegFileHelper::RegFileHelperIs("csv");
  csv->init(file(kCsv), 4, HardwareRegisterFile::HardwareRegisterFileIs("ignored"));
  EXPECT_FALSE(csv->regFileModel());
  std::istringstream in(kCsv);
  auto const model = RegFileHelper::RegFileHelperIs("model");
  model->init("", 4, HardwareRegisterFile::HardwareRegisterFileIs("m", TarnRegFile::RegisterFile(in, 4).index()));
  for (auto* helper : {csv.ptr(), model.ptr()}) {
    SCOPED_TRACE(helper->name().str());
    HardwareRegister const ctrl = helper->findRegisterByName(Kiv::String("ctrl"));
    EXPECT_EQ(ctrl, (HardwareRegister{"ctrl", T::ctl, true, 4, 8, 32}));
    EXPECT_EQ(helper->findRegNameByAddr(12), "ctrl");
    EXPECT_STREQ(helper->regNameAt(8), "status");
    for (auto [name, type] : {std::pair{"odd", T::unknown}, {"res", T::reserved}, {"id", T::constant},
                              {"conf", T::cfg}, {"status", T::sts}, {"cnt", T::counter}})
      EXPECT_EQ(helper->findRegisterByName(name).type, type) << name;
    EXPECT_EQ(helper->regList()->registerNameCount(), 7u) << "the duplicate name is listed once";
    EXPECT_THAT([&] { helper->findRegisterByName("missing"); },
                throwsError("RegisterFile does not have register 'missing'!"));
    EXPECT_THAT([&] { helper->regNameAt(4096); }, throwsError("RegisterFile does not have address: 4096!"));
    EXPECT_FALSE(helper->hasRegName("missing"));
  }
  csv->handleDeletion();
  EXPECT_FALSE(csv->hasRegName("ctrl"));
}

TEST_F(RegFileHelperTest, FailedInitsLoadNothing) {
  auto helper = RegFileHelper::RegFileHelperIs("none");
  EXPECT_THAT([&] { helper->init("", 4, nullptr); }, throwsError("Must provide Csv path or KivPtr"));
  EXPECT_THAT([&] { helper->init("/nonexistent/chip.csv", 4, nullptr); },
              throwsError("Error opening CSV file /nonexistent/chip.csv"));
  EXPECT_THAT([&] { helper->init(file("num,name\n"), 4, nullptr); }, throwsError("Encountered wrong CSV header!"));
  EXPECT_EQ(helper->csvRegFile(), nullptr);
}

// The model's index under change: a replaced register moves its address, a removed one
// frees its name and address, and thousands of changes (growth, compaction) lose nothing.
TEST(HardwareRegisterFile, ReplacementsAndRemovalsKeepBothSidesExact) {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("m");
  auto const helper = RegFileHelper::RegFileHelperIs("m");
  helper->init("", 4, model);
  model->registerIs({"a", T::cfg, true, 0x10, 32, 32});
  model->registerIs({"a", T::sts, false, 0x20, 16, 32});
  EXPECT_FALSE(model->addressHas(0x10));
  EXPECT_EQ(model->regByAddress(0x20), (HardwareRegister{"a", T::sts, false, 0x20, 16, 32}));
  EXPECT_THROW(model->registerIs({std::string_view("b\0c", 3), T::cfg, true, 0, 32, 32}), std::invalid_argument);
  for (U32 round = 0; round < 3; ++round) {
    for (U32 i = 0; i < 3000; ++i) model->registerIs({"r" + std::to_string(i), T::cfg, true, 0x1000 + 4 * i, 32, 32});
    for (U32 i = 0; i < 3000; i += 2) model->registerDel("r" + std::to_string(i));
  }
  model->registerDel("a");
  EXPECT_EQ(model->regCount(), 1500u);
  EXPECT_FALSE(helper->hasRegName("a"));
  EXPECT_FALSE(model->addressHas(0x20));
  for (U32 i = 0; i < 3000; ++i) {
    bool const kept = i % 2 == 1;
    ASSERT_EQ(helper->hasRegName("r" + std::to_string(i)), kept) << i;
    ASSERT_EQ(model->addressHas(0x1000 + 4 * i), kept) << i;
    if (kept) {
      ASSERT_STREQ(helper->regNameAt(0x1000 + 4 * i), ("r" + std::to_string(i)).c_str());
    }
  }
}

struct NameWatcher : RegList::Notifiee {
  void onRegisterName(Kiv::String const& name) override { seen.push_back(name.str()); }
  std::vector<std::string> seen;
};

TEST(RegList, NotifiesOnlyRealChanges) {
  auto list = RegList::RegListIs();
  NameWatcher w;
  w.notifierIs(list);
  for (char const* name : {"a", "a", "b", "c"}) list->registerNameIs(name, true);  // the second "a" changes nothing
  EXPECT_TRUE(list->registerNameDel("a"));
  EXPECT_FALSE(list->registerNameDel("a"));
  list->registerNameIs("b", false);  // absent: removes
  EXPECT_EQ(w.seen, (std::vector<std::string>{"a", "b", "c", "a", "b"}));
  list->registerNameDelAll();
  EXPECT_EQ(w.seen.size(), 6u);
  EXPECT_EQ(list->registerNameCount(), 0u);
}

}  // namespace
