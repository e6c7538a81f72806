// Register lookups from a CSV map or a register-file model, and the register-name set.
#include "TarnRegFile/RegisterFile.h"
#include "TarnRegFile/RegisterFileHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
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

Kiv::Ptr<HardwareRegisterFile> modelWith(std::initializer_list<HardwareRegister> regs) {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("model");
  for (auto const& r : regs) model->registerIs(r);
  return model;
}

class RegFileHelperTest : public ::testing::Test {
protected:
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string file(std::string const& name, std::string const& text) const {
    std::string const p = std::string(dir_) + "/" + name;
    std::ofstream(p) << text;
    return p;
  }
  void SetUp() override {
    ASSERT_TRUE(::mkdtemp(dir_));
    csv_->init(file("chip.csv", kCsv), 4, nullptr);
  }
  Kiv::Ptr<RegFileHelper> const csv_ = RegFileHelper::RegFileHelperIs("csv");
  char dir_[32] = "/tmp/tarn-helper-XXXXXX";
};

TEST_F(RegFileHelperTest, CsvRegistersAreConvertedAndTheLookupsFollowTheFile) {
  auto const& helper = csv_;
  HardwareRegister const& ctrl = helper->findRegisterByName(Kiv::String("ctrl"));
  EXPECT_EQ(ctrl.name, "ctrl");
  EXPECT_TRUE(ctrl.writeable);
  EXPECT_EQ(ctrl.address, 4u);
  EXPECT_EQ(ctrl.width, 8u);
  EXPECT_EQ(ctrl.accessWidth, 32u);
  EXPECT_FALSE(helper->findRegisterByName("status").writeable);
  EXPECT_EQ(helper->findRegNameByAddr(12), "ctrl");
  // Each CSV type becomes the model type of the same number.
  for (auto [name, type] : {std::pair{"odd", T::unknown}, {"res", T::reserved}, {"id", T::constant}, {"conf", T::cfg},
                            {"status", T::sts}, {"cnt", T::counter}, {"ctrl", T::ctl}})
    EXPECT_EQ(helper->findRegisterByName(name).type, type) << name;

  auto const list = helper->regList();
  EXPECT_EQ(list->registerNameCount(), 7u) << "the duplicate name is listed once";
  EXPECT_TRUE(list->registerName("ctrl"));

  // Replacing or deleting the CSV file rebuilds the lookups.
  std::string const other = file("other.csv", "number,name,type,writeable,width\n7,other,cfg,true,32\n");
  helper->csvRegFileIs(new TarnRegFile::RegisterFile(other.c_str(), 1));
  EXPECT_EQ(helper->findRegisterByName("other").address, 7u);
  EXPECT_EQ(helper->findRegNameByAddr(7), "other");
  EXPECT_FALSE(helper->hasRegName("ctrl"));
  helper->handleDeletion();
  EXPECT_EQ(helper->csvRegFile(), nullptr);
  EXPECT_FALSE(helper->hasRegName("other"));
}

TEST_F(RegFileHelperTest, ModelAnswersWithTheSameMessagesAsCsv) {
  auto model = RegFileHelper::RegFileHelperIs("model");
  model->init("", 4, modelWith({{"ctrl", T::ctl, true, 0x40, 16, 32}, {"b", T::sts, false, 4, 32, 32}}));
  EXPECT_EQ(model->findRegisterByName("ctrl").address, 0x40u);
  EXPECT_EQ(model->findRegisterByName(Kiv::String("ctrl")).width, 16u);
  EXPECT_EQ(model->findRegNameByAddr(0x40), "ctrl");
  EXPECT_TRUE(model->hasRegName("ctrl"));
  EXPECT_EQ(model->regList()->registerNameCount(), 2u);

  for (auto* helper : {csv_.ptr(), model.ptr()}) {
    SCOPED_TRACE(helper->name().str());
    auto const missing = throwsError("RegisterFile does not have register 'missing'!");
    EXPECT_THAT([&] { helper->findRegisterByName("missing"); }, missing);
    EXPECT_THAT([&] { helper->findRegisterByName(Kiv::String("missing")); }, missing);
    EXPECT_THAT([&] { helper->findRegNameByAddr(4096); }, throwsError("RegisterFile does not have address: 4096!"));
    EXPECT_FALSE(helper->hasRegName("missing"));
  }
}

TEST_F(RegFileHelperTest, CsvWinsOverModelAndFailedInitsLoadNothing) {
  auto helper = RegFileHelper::RegFileHelperIs("both");
  EXPECT_THAT([&] { helper->init("", 4, nullptr); }, throwsError("Must provide Csv path or KivPtr"));
  EXPECT_THAT([&] { helper->init("/nonexistent/chip.csv", 4, nullptr); },
              throwsError("Error opening CSV file /nonexistent/chip.csv"));
  std::string const bad = file("bad.csv", "num,name\n");
  EXPECT_THAT([&] { helper->init(bad, 4, nullptr); }, throwsError("Encountered wrong CSV header!"));
  EXPECT_EQ(helper->csvRegFile(), nullptr);

  helper->init(file("chip.csv", kCsv), 4, modelWith({{"modelOnly", T::cfg, true, 0x100, 32, 32}}));
  EXPECT_FALSE(helper->regFileModel());
  EXPECT_TRUE(helper->hasRegName("ctrl"));
  EXPECT_FALSE(helper->hasRegName("modelOnly"));
}

struct NameWatcher : RegList::Notifiee {
  void onRegisterName(Kiv::String const& name) override { seen.push_back(name.str()); }
  std::vector<std::string> seen;
};

TEST(RegList, NotifiesOnlyRealChanges) {
  auto list = RegList::RegListIs();
  NameWatcher w;
  w.notifierIs(list);
  list->registerNameIs("a", true);
  list->registerNameIs("a", true);  // already there: no change
  list->registerNameIs("b", true);
  list->registerNameIs("c", true);
  EXPECT_TRUE(list->registerNameDel("a"));
  EXPECT_FALSE(list->registerNameDel("a"));
  list->registerNameIs("b", false);  // absent: removes
  EXPECT_EQ(w.seen, (std::vector<std::string>{"a", "b", "c", "a", "b"}));
  list->registerNameDelAll();
  EXPECT_EQ(w.seen.size(), 6u);
  EXPECT_EQ(list->registerNameCount(), 0u);
}

}  // namespace
