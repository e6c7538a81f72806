// Register lookups from a CSV map or a register-file model, and the register-name set.
#include "TarnRegFile/RegisterFile.h"
#include "TarnRegFile/RegisterFileHelper.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace {

using Hardware::TarnRegFile::HardwareRegister;
using Hardware::TarnRegFile::HardwareRegisterFile;
using Hardware::TarnRegFile::HardwareRegisterType;
using TarnRegFile::RegFileHelper;
using TarnRegFile::RegList;

class TempDir {
public:
  TempDir() {
    char pattern[] = "/tmp/tarn-helper-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::string file(std::string const& name, std::string const& text) const {
    std::string const p = path_ + "/" + name;
    std::ofstream(p) << text;
    return p;
  }

private:
  std::string path_;
};

constexpr char const* kCsv =
    "number,name,type,writeable,width\n"
    "0,id,const,false,32\n"
    "1,ctrl,ctl,true,8\n"
    "2,status,sts,false,16\n"
    "3,ctrl,cfg,true,32\n";  // duplicate name: the first record wins, address 12 is claimed by it too

template <class F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (std::runtime_error const& e) {
    return e.what();
  }
  return "(no exception)";
}

Kiv::Ptr<HardwareRegisterFile> modelWith(std::initializer_list<HardwareRegister> regs) {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("model");
  for (auto const& r : regs) model->registerIs(r);
  return model;
}

TEST(RegFileHelper, CsvRegisterIsConvertedWithScaledAddressAndFullAccessWidth) {
  TempDir dir;
  auto helper = RegFileHelper::RegFileHelperIs("chip.csv");
  helper->init(dir.file("chip.csv", kCsv), 4, nullptr);

  HardwareRegister const& ctrl = helper->findRegisterByName(Kiv::String("ctrl"));
  EXPECT_EQ(ctrl.name, "ctrl");
  EXPECT_EQ(ctrl.type, HardwareRegisterType::ctl);
  EXPECT_TRUE(ctrl.writeable);
  EXPECT_EQ(ctrl.address, 4u);
  EXPECT_EQ(ctrl.width, 8u);
  EXPECT_EQ(ctrl.accessWidth, 32u);

  HardwareRegister const& status = helper->findRegisterByName("status");
  EXPECT_EQ(status.type, HardwareRegisterType::sts);
  EXPECT_FALSE(status.writeable);
  EXPECT_EQ(status.address, 8u);

  EXPECT_EQ(helper->findRegNameByAddr(8), "status");
  EXPECT_EQ(helper->findRegNameByAddr(12), "ctrl");
  EXPECT_TRUE(helper->hasRegName("id"));
  EXPECT_FALSE(helper->hasRegName("nope"));
}

TEST(RegFileHelper, EveryCsvTypeMapsToTheSameNumberedModelType) {
  struct Row {
    char const* token;
    HardwareRegisterType expected;
  };
  Row const rows[] = {
      {"bogus", HardwareRegisterType::unknown}, {"reserved", HardwareRegisterType::reserved},
      {"const", HardwareRegisterType::constant}, {"cfg", HardwareRegisterType::cfg},
      {"sts", HardwareRegisterType::sts},       {"counter", HardwareRegisterType::counter},
      {"ctl", HardwareRegisterType::ctl},
  };
  std::string csv = "number,name,type,writeable,width\n";
  for (size_t i = 0; i < std::size(rows); ++i)
    csv += std::to_string(i) + ",r" + std::to_string(i) + "," + rows[i].token + ",true,32\n";
  TempDir dir;
  auto helper = RegFileHelper::RegFileHelperIs("types");
  helper->init(dir.file("types.csv", csv), 1, nullptr);
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].token);
    EXPECT_EQ(helper->findRegisterByName(("r" + std::to_string(i)).c_str()).type, rows[i].expected);
  }
}

TEST(RegFileHelper, ModelAnswersWithTheSameMessagesAsCsv) {
  TempDir dir;
  auto csv = RegFileHelper::RegFileHelperIs("csv");
  csv->init(dir.file("chip.csv", kCsv), 4, nullptr);
  auto model = RegFileHelper::RegFileHelperIs("");
  model->init("", 4, modelWith({{"ctrl", HardwareRegisterType::ctl, true, 0x40, 16, 32}}));

  EXPECT_EQ(model->findRegisterByName("ctrl").address, 0x40u);
  EXPECT_EQ(model->findRegisterByName(Kiv::String("ctrl")).width, 16u);
  EXPECT_EQ(model->findRegNameByAddr(0x40), "ctrl");
  EXPECT_TRUE(model->hasRegName("ctrl"));

  for (auto* helper : {csv.ptr(), model.ptr()}) {
    SCOPED_TRACE(helper->name().str());
    EXPECT_EQ(errorOf([&] { helper->findRegisterByName("missing"); }),
              "RegisterFile does not have register 'missing'!");
    EXPECT_EQ(errorOf([&] { helper->findRegisterByName(Kiv::String("missing")); }),
              "RegisterFile does not have register 'missing'!");
    EXPECT_EQ(errorOf([&] { helper->findRegNameByAddr(4096); }), "RegisterFile does not have address: 4096!");
    EXPECT_FALSE(helper->hasRegName("missing"));
  }
}

TEST(RegFileHelper, CsvWinsOverModelWhenBothAreGiven) {
  TempDir dir;
  auto helper = RegFileHelper::RegFileHelperIs("both");
  helper->init(dir.file("chip.csv", kCsv), 4,
               modelWith({{"modelOnly", HardwareRegisterType::cfg, true, 0x100, 32, 32}}));
  EXPECT_FALSE(helper->regFileModel());
  EXPECT_TRUE(helper->hasRegName("ctrl"));
  EXPECT_FALSE(helper->hasRegName("modelOnly"));
  EXPECT_EQ(errorOf([&] { helper->findRegisterByName("modelOnly"); }),
            "RegisterFile does not have register 'modelOnly'!");
}

TEST(RegFileHelper, InitFailures) {
  auto helper = RegFileHelper::RegFileHelperIs("");
  EXPECT_EQ(errorOf([&] { helper->init("", 4, nullptr); }), "Must provide Csv path or KivPtr");
  EXPECT_EQ(errorOf([&] { helper->init("/nonexistent/chip.csv", 4, nullptr); }),
            "Error opening CSV file /nonexistent/chip.csv");
  TempDir dir;
  EXPECT_EQ(errorOf([&] { helper->init(dir.file("bad.csv", "num,name\n"), 4, nullptr); }),
            "Encountered wrong CSV header!");
  // Nothing was loaded by the failed attempts.
  EXPECT_EQ(helper->csvRegFile(), nullptr);
  EXPECT_EQ(errorOf([&] { helper->findRegisterByName("id"); }), "RegisterFile does not have register 'id'!");
}

TEST(RegFileHelper, RegListHoldsEveryNameOnce) {
  TempDir dir;
  auto helper = RegFileHelper::RegFileHelperIs("csv");
  helper->init(dir.file("chip.csv", kCsv), 4, nullptr);
  auto const list = helper->regList();
  EXPECT_EQ(list->registerNameCount(), 3u);
  for (char const* n : {"id", "ctrl", "status"}) EXPECT_TRUE(list->registerName(n)) << n;

  auto modelHelper = RegFileHelper::RegFileHelperIs("");
  modelHelper->init("", 4,
                    modelWith({{"a", HardwareRegisterType::cfg, true, 0, 32, 32},
                               {"b", HardwareRegisterType::sts, false, 4, 32, 32}}));
  auto const modelList = modelHelper->regList();
  EXPECT_EQ(modelList->registerNameCount(), 2u);
  EXPECT_TRUE(modelList->registerName("a"));
  EXPECT_TRUE(modelList->registerName("b"));
}

TEST(RegFileHelper, ReplacingAndDeletingTheCsvFileRebuildsTheLookups) {
  TempDir dir;
  auto helper = RegFileHelper::RegFileHelperIs("csv");
  helper->init(dir.file("chip.csv", kCsv), 4, nullptr);
  std::string const other = dir.file("other.csv", "number,name,type,writeable,width\n7,other,cfg,true,32\n");
  helper->csvRegFileIs(new TarnRegFile::RegisterFile(other.c_str(), 1));
  EXPECT_EQ(helper->findRegisterByName("other").address, 7u);
  EXPECT_EQ(helper->findRegNameByAddr(7), "other");
  EXPECT_FALSE(helper->hasRegName("ctrl"));

  helper->handleDeletion();
  EXPECT_EQ(helper->csvRegFile(), nullptr);
  EXPECT_FALSE(helper->hasRegName("other"));
  EXPECT_THROW(helper->findRegNameByAddr(7), std::runtime_error);
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
  EXPECT_EQ(w.seen, (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(list->registerNameDel("a"));
  EXPECT_FALSE(list->registerNameDel("a"));
  list->registerNameIs("b", false);
  EXPECT_EQ(w.seen.size(), 4u);
  EXPECT_EQ(list->registerNameCount(), 0u);

  list->registerNameIs("x", true);
  list->registerNameIs("y", true);
  w.seen.clear();
  list->registerNameDelAll();
  EXPECT_EQ(w.seen.size(), 2u);
  EXPECT_TRUE(list->registerNames().empty());
}

}  // namespace
