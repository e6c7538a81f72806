// The CSV register map: one line, whole files, pipes and devices, lookups; the register
// lookups a helper answers from a map or a register-file model, the model's own index
// under change, and the name set.
#include "TarnRegFile/Errors.h"
#include "TarnRegFile/RegisterFile.h"
#include "TarnRegFile/RegisterFileHelper.h"

#include "TarnRegFile/platform/Trace.h"

#include "support/ToolRun.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

#include <stdexcept>
#include <thread>
#include <tuple>

using Hardware::TarnRegFile::HardwareRegister;
using Hardware::TarnRegFile::HardwareRegisterFile;
using TarnRegFile::MapError;
using TarnRegFile::RegFileHelper;
using TarnRegFile::Register;
using TarnRegFile::RegisterFile;
using TarnRegFile::RegisterType;
using TarnRegFile::RegList;
using T = Hardware::TarnRegFile::HardwareRegisterType;

namespace {

constexpr char kHeader[] = "number,name,type,writeable,width\n";

// The MapError that @p fn throws; a std::runtime_error that is none comes back with line 0
// and an empty path, and no exception as "<no exception>".
template <class Fn>
MapError errorOf(Fn&& fn) {
  try {
    fn();
  } catch (MapError const& e) {
    return e;
  } catch (std::runtime_error const& e) {
    return MapError(e.what(), "", 0);
  }
  return MapError("<no exception>", "", 0);
}
std::string textOf(MapError const& e) { return e.what(); }

RegisterFile load(std::string const& csv, U8 addrBlockSize = 4) {
  std::istringstream in(csv);
  return RegisterFile(in, addrBlockSize);
}

// ---------------------------------------------------------------- one line

// The text form shows every field but the type: number, name, writeable and width. Problems the parser
// tolerates leave one level-8 trace; a clean line none.
TEST(RegisterFileLine, FieldsTextFormAndTracesOfToleratedProblems) {
  using T = RegisterType;
  using Case = std::tuple<char const*, U8, RegisterType, char const*, char const*>;  // line, block size, type, text, trace
  Case const cases[] = {
      {"16,scratch,cfg,true,32", 4, T::Cfg, "0x000040 scratch writeable 32", nullptr},
      // Only the exact lower-case "false" makes a register read-only.
      {"1,a,cfg,False,32", 1, T::Cfg, "0x000001 a writeable 32", nullptr},
      // Names are kept byte for byte; a separator at the very end yields no sixth field.
      {"3, Sp ace ,cfg,true,8,", 1, T::Cfg, "0x000003  Sp ace  writeable 8", nullptr},
      {"9,r,ctl,false,12,,99", 1, T::Ctl, "0x000009 r readonly 12", "Found extraneous field(s) in CSV file."},
      // The scaled address wraps silently.
      {"4294967295,wrap,cfg,true,32", 2, T::Cfg, "0xfffffffe wrap writeable 32", nullptr},
      {"1,a,CFG,true,32", 1, T::Unknown, "0x000001 a writeable 32", "Unknown register type 'CFG'"},
      // Fields a short line does not supply are zero.
      {"1,a,cfg,true,", 1, T::Cfg, "0x000001 a writeable 0", "Incomplete CSV fields. Found 4 fields only."},
      {"", 4, T::Unknown, "00000000  readonly 0", "Incomplete CSV fields. Found 0 fields only."},
  };
  for (auto const& [line, blockSize, type, text, trace] : cases) {
    SCOPED_TRACE(line);
    Kiv::TraceCapture cap("TarnRegFile/RegisterFile");
    Register const reg(line, blockSize);
    EXPECT_EQ(static_cast<std::string>(reg), text);
    EXPECT_EQ(reg.type, type);
    ASSERT_EQ(cap.records().size(), trace ? 1u : 0u);
    EXPECT_TRUE(!trace || cap.contains(trace, 8)) << cap.records()[0].text;
  }
}

using RegisterFileDeathTest = ::testing::Test;

TEST_F(RegisterFileDeathTest, ZeroAddressBlockSizeIsFatal) {
  EXPECT_DEATH(Register("1,a,cfg,true,32", 0),
               "condition: addrBlockSize\n"
               "  message:   a register file's address block size must not be 0\n"
               "  unit:      TarnRegFile/RegisterFile\n"
               "  function:  TarnRegFile::Register::Register\\(const std::string_view&, U8\\)");
}

// ---------------------------------------------------------------- whole files

TEST(RegisterFileLoad, HeaderLineEndsDuplicatesAndShortLines) {
  for (char const* csv : {"", "number,name,type,writeable,width \n", "Number,name,type,writeable,width\n",
                          "number,name,type,writeable,width,\n", "number,name,type,writeable,width\r\r\n"})
    EXPECT_EQ(textOf(errorOf([&] { load(csv); })), "Encountered wrong CSV header!") << csv;
  for (char const* ends : {"\n", "\r\n"}) {  // LF or CRLF, and no final newline
    std::string csv = std::string("number,name,type,writeable,width") + ends + "1,a,cfg,true,32" + ends +
                      "2,a,sts,false,8" + ends + "5,first,cfg,true,32" + ends + "5,second,sts,false,8" + ends + ends +
                      "3,short,cfg";
    if (ends[0] == '\r') csv += "\r";
    SCOPED_TRACE(csv);
    RegisterFile const file = load(csv);
    EXPECT_EQ(file.size(), 5u);
    EXPECT_EQ(file.addressCount(), 5u);
    auto const a = file.findRegisterByName("a");  // the first record of a duplicated name
    EXPECT_EQ(a.number, 4u);
    EXPECT_EQ(file.findRegNameByAddr(8), "a") << "the dropped second record still maps its address";
    EXPECT_EQ(file.findRegNameByAddr(20), "first");
    std::string order;  // a blank line is a record with an empty name
    file.forEachRegister([&](TarnRegFile::RegisterRef const& r) { order += std::string(r.name) + ";"; });
    EXPECT_EQ(order, "a;first;second;;short;");
  }
}

// Every refusal abandons the load and names its line; a NUL byte in a name is refused
// where the line would otherwise load.
TEST(RegisterFileLoad, ABadLineAbandonsTheLoadAndNamesItsLine) {
  using namespace std::string_view_literals;
  std::pair<std::string_view, char const*> const cases[] = {
      {"0x10,a,cfg,true,32", "Invalid address token"}, {"-1,a,cfg,true,32", "Invalid address token"},
      {" 1,a,cfg,true,32", "Invalid address token"},   {",a,cfg,true,32", "Invalid address token"},
      {"4294967296,a,cfg,true,32", "Invalid address token"}, {"1,a,cfg,true,33", "Unsupported register width"},
      {"1,a,cfg,true,x", "Invalid width token"},       {"1,a,cfg,true,,", "Invalid width token"},
      {"2,b\0c,cfg,true,32"sv, "NUL byte in register name"},
  };
  for (auto [line, message] : cases) {
    std::string const csv = std::string(kHeader) + "1,a,cfg,true,32\n" + std::string(line) + "\n3,c,cfg,true,32\n";
    MapError const e = errorOf([&] { load(csv); });
    EXPECT_STREQ(e.what(), message) << line;
    EXPECT_EQ(e.line(), 3u);
  }
}

// The texts of misses are checked through the helper, which passes them on.
TEST(RegisterFileLookup, KeysAreExactAndANullNameIsNeverFound) {
  RegisterFile const file = load(std::string(kHeader) + "1,Scratch,cfg,true,32\n\n");
  EXPECT_TRUE(file.hasRegName("Scratch"));
  for (char const* miss : {"scratch", "Scratch ", "Scratch\r"}) EXPECT_FALSE(file.hasRegName(miss)) << miss;
  // A null name is never found, even where the empty name is.
  char const* const none = nullptr;
  ASSERT_TRUE(file.hasRegName(""));
  EXPECT_FALSE(file.hasRegName(none));
  EXPECT_EQ(textOf(errorOf([&] { file.findRegisterByName(none); })), "RegisterFile does not have register '(null)'!");
  EXPECT_EQ(textOf(errorOf([&] { RegisterFile(none, 4); })), "Error opening CSV file (null)");
}

// ---------------------------------------------------------------- files, pipes and devices

TEST(RegisterFilePath, LoadsFilesAndPipesAndRefusesWhatIsNoMap) {
  TarnTest::TempDir const tmp;
  std::string const& dir = tmp.path;
  // Far more than the first read and than any initial capacity.
  constexpr U32 kCount = 5000;
  std::string csv = kHeader;
  for (U32 i = 0; i < kCount; ++i) csv += std::to_string(i) + ",reg_" + std::to_string(i) + ",sts,false,16\r\n";
  std::ofstream(dir + "/large.csv", std::ios::binary) << csv;
  RegisterFile const file((dir + "/large.csv").c_str(), 4);
  EXPECT_EQ(file.size(), kCount);
  EXPECT_EQ(file.addressCount(), kCount);
  // An endless first line is judged by its first bytes, not read to its end.
  MapError const zeros = errorOf([&] { RegisterFile("/dev/zero", 4); });
  EXPECT_STREQ(zeros.what(), "Encountered wrong CSV header!");
  EXPECT_EQ(zeros.line(), 1u);
  // A pipe is read once: the loader counts the lines itself, also past the first read.
  std::string const fifo = dir + "/map.fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::thread writer([&] { std::ofstream(fifo) << csv + "5000,bad,cfg,true,x8\n"; });
  MapError const piped = errorOf([&] { RegisterFile(fifo.c_str(), 4); });
  writer.join();
  EXPECT_STREQ(piped.what(), "Invalid width token");
  EXPECT_EQ(piped.line(), kCount + 2);
}

// ---------------------------------------------------------------- the helper and the model

// One register of every type; "ctrl" twice (the loader's tests cover which record wins).
constexpr char const* kCsv =
    "number,name,type,writeable,width\n"
    "0,id,const,false,32\n1,ctrl,ctl,true,8\n2,status,sts,false,16\n3,ctrl,cfg,true,32\n"
    "4,res,reserved,true,32\n5,cnt,counter,true,32\n6,conf,cfg,true,32\n7,odd,bogus,true,32\n";

auto throwsError(std::string const& message) { return testing::ThrowsMessage<std::runtime_error>(message); }

// Both sources answer alike: a CSV map (types converted, accessed 32 bits wide) and a
// model (made from the same map's index); the CSV file wins when both are given.
TEST(RegFileHelper, CsvMapAndModelAnswerAlike) {
  TarnTest::TempDir const dir;
  TarnTest::writeFile(dir.path + "/chip.csv", kCsv);
  auto const csv = RegFileHelper::RegFileHelperIs("csv");
  csv->init(dir.path + "/chip.csv", 4, HardwareRegisterFile::HardwareRegisterFileIs("ignored"));
  std::istringstream in(kCsv);
  auto const model = RegFileHelper::RegFileHelperIs("model");
  model->init("", 4, HardwareRegisterFile::HardwareRegisterFileIs("m", TarnRegFile::RegisterFile(in, 4).index()));
  for (auto* helper : {csv.ptr(), model.ptr()}) {
    SCOPED_TRACE(helper->name().str());
    HardwareRegister const ctrl = helper->findRegisterByName(Kiv::String("ctrl"));
    EXPECT_EQ(ctrl, (HardwareRegister{"ctrl", T::ctl, true, 4, 8, 32}));
    EXPECT_STREQ(helper->regNameAt(8), "status");
    for (auto [name, type] : {std::pair{"odd", T::unknown}, {"res", T::reserved}, {"id", T::constant},
                              {"conf", T::cfg}, {"status", T::sts}, {"cnt", T::counter}})
      EXPECT_EQ(helper->findRegisterByName(name).type, type) << name;
    EXPECT_THAT([&] { helper->findRegisterByName("missing"); },
                throwsError("RegisterFile does not have register 'missing'!"));
    EXPECT_THAT([&] { helper->regNameAt(4096); }, throwsError("RegisterFile does not have address: 4096!"));
    EXPECT_FALSE(helper->hasRegName("missing"));
  }
  csv->handleDeletion();
  EXPECT_FALSE(csv->hasRegName("ctrl"));
  // A refused source leaves nothing loaded (the loader's own refusals are its tests' business).
  EXPECT_THAT([&] { csv->init("", 4, nullptr); }, throwsError("Must provide Csv path or KivPtr"));
  EXPECT_THAT([&] { csv->init("/nonexistent/chip.csv", 4, nullptr); },
              throwsError("Error opening CSV file /nonexistent/chip.csv"));
  EXPECT_EQ(csv->csvRegFile(), nullptr);
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
  EXPECT_EQ(model->regCount(), 1501u);
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
  list->registerNameIs("b", false);  // absent: removes
  EXPECT_EQ(w.seen, (std::vector<std::string>{"a", "b", "c", "a", "b"}));
  list->registerNameDelAll();
  EXPECT_EQ(w.seen.size(), 6u);
  EXPECT_EQ(list->registerNameCount(), 0u);
}

}  // namespace
