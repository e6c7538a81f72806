#include "TarnRegFile/RegisterFile.h"

#include "Trace.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using TarnRegFile::Register;
using TarnRegFile::RegisterFile;
using TarnRegFile::RegisterType;

namespace {

constexpr char kHeader[] = "number,name,type,writeable,width\n";

// The exact what() of the std::runtime_error that @p fn throws, or a marker when it does not throw.
template <class Fn>
std::string runtimeErrorOf(Fn&& fn) {
  try {
    fn();
  } catch (std::runtime_error const& e) {
    return e.what();
  }
  return "<no exception>";
}

RegisterFile load(std::string const& csv, U8 addrBlockSize = 4) {
  std::istringstream in(csv);
  return RegisterFile(in, addrBlockSize);
}

// ---------------------------------------------------------------- one line

struct ParseCase {
  char const* line;
  U8 blockSize;
  U32 number;
  U32 width;
  RegisterType type;
  bool writeable;
  char const* name;
  char const* text;
};

TEST(RegisterFileLine, FieldsAndTextForm) {
  ParseCase const cases[] = {
      {"16,scratch,cfg,true,32", 4, 64, 32, RegisterType::Cfg, true, "scratch", "0x000040 scratch writeable 32"},
      {"1,a,sts,false,8", 1, 1, 8, RegisterType::Sts, false, "a", "0x000001 a readonly 8"},
      {"0,zero,ctl,false,1", 1, 0, 1, RegisterType::Ctl, false, "zero", "00000000 zero readonly 1"},
      {"1193046,mid,reserved,true,16", 1, 0x123456, 16, RegisterType::Reserved, true, "mid", "0x123456 mid writeable 16"},
      {"19088743,wide,const,false,32", 1, 0x1234567, 32, RegisterType::Const, false, "wide", "0x1234567 wide readonly 32"},
      {"2,cnt,counter,true,0", 2, 4, 0, RegisterType::Counter, true, "cnt", "0x000004 cnt writeable 0"},
      // Only the exact lower-case "false" makes a register read-only.
      {"1,a,cfg,False,32", 1, 1, 32, RegisterType::Cfg, true, "a", "0x000001 a writeable 32"},
      {"1,a,cfg,0,32", 1, 1, 32, RegisterType::Cfg, true, "a", "0x000001 a writeable 32"},
      {"1,a,cfg,,32", 1, 1, 32, RegisterType::Cfg, true, "a", "0x000001 a writeable 32"},
      // Names are kept byte for byte, spaces and case included; an empty name is allowed.
      {"3, Sp ace ,cfg,true,8", 1, 3, 8, RegisterType::Cfg, true, " Sp ace ", "0x000003  Sp ace  writeable 8"},
      {"3,,cfg,true,8", 1, 3, 8, RegisterType::Cfg, true, "", "0x000003  writeable 8"},
      // A separator at the very end yields no sixth field.
      {"1,a,cfg,true,32,", 1, 1, 32, RegisterType::Cfg, true, "a", "0x000001 a writeable 32"},
      // The scaled address wraps silently.
      {"4294967295,wrap,cfg,true,32", 2, 4294967294u, 32, RegisterType::Cfg, true, "wrap", "0xfffffffe wrap writeable 32"},
      {"00017,lead,cfg,true,032", 1, 17, 32, RegisterType::Cfg, true, "lead", "0x000011 lead writeable 32"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.line);
    Register const reg(c.line, c.blockSize);
    EXPECT_EQ(reg.number, c.number);
    EXPECT_EQ(reg.width, c.width);
    EXPECT_EQ(reg.type, c.type);
    EXPECT_EQ(reg.writeable, c.writeable);
    EXPECT_EQ(reg.name, c.name);
    EXPECT_EQ(static_cast<std::string>(reg), c.text);
  }
}

TEST(RegisterFileLine, BadNumbersThrowExactMessages) {
  struct Case {
    char const* line;
    char const* message;
  };
  Case const cases[] = {
      {"0x10,a,cfg,true,32", "Invalid address token"},
      {"-1,a,cfg,true,32", "Invalid address token"},
      {"+1,a,cfg,true,32", "Invalid address token"},
      {" 1,a,cfg,true,32", "Invalid address token"},
      {"1 ,a,cfg,true,32", "Invalid address token"},
      {",a,cfg,true,32", "Invalid address token"},
      {"4294967296,a,cfg,true,32", "Invalid address token"},
      {"1,a,cfg,true,33", "Unsupported register width"},
      {"1,a,cfg,true,4294967295", "Unsupported register width"},
      {"1,a,cfg,true,x", "Invalid width token"},
      {"1,a,cfg,true, 8", "Invalid width token"},
      {"1,a,cfg,true,8\r", "Invalid width token"},
      {"1,a,cfg,true,-1", "Invalid width token"},
      {"1,a,cfg,true,4294967296", "Invalid width token"},
      {"1,a,cfg,true,,", "Invalid width token"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(runtimeErrorOf([&] { Register(c.line, 4); }), c.message);
  }
}

TEST(RegisterFileLine, ToleratedProblemsAreTracedAtLevel8) {
  struct Case {
    char const* line;
    char const* trace;  // nullptr: the line must produce no trace at all
  };
  Case const cases[] = {
      {"1,a,cfg,true,32", nullptr},
      {"1,a,cfg,true,32,", nullptr},
      {"1,a,CFG,true,32", "Unknown register type 'CFG'"},
      {"1,a,,true,32", "Unknown register type ''"},
      {"1,a,cfg,true,32,,", "Found extraneous field(s) in CSV file."},
      {"1,a,cfg,true,32,x,y,z", "Found extraneous field(s) in CSV file."},
      {"1,a,cfg,true,", "Incomplete CSV fields. Found 4 fields only."},
      {"1,a,cfg,true", "Incomplete CSV fields. Found 4 fields only."},
      {"1,a", "Incomplete CSV fields. Found 2 fields only."},
      {"", "Incomplete CSV fields. Found 0 fields only."},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.line);
    Kiv::TraceCapture cap("TarnRegFile/*");
    Register const reg(c.line, 4);
    if (c.trace == nullptr) {
      EXPECT_TRUE(cap.records().empty());
    } else {
      ASSERT_EQ(cap.records().size(), 1u);
      EXPECT_EQ(cap.records()[0].unit, "TarnRegFile/RegisterFile");
      EXPECT_EQ(cap.records()[0].level, 8u);
      EXPECT_EQ(cap.records()[0].text, c.trace);
    }
  }
}

TEST(RegisterFileLine, ShortLineLeavesMissingFieldsZero) {
  Register const empty("", 4);
  EXPECT_EQ(empty.number, 0u);
  EXPECT_EQ(empty.width, 0u);
  EXPECT_EQ(empty.type, RegisterType::Unknown);
  EXPECT_FALSE(empty.writeable);
  EXPECT_EQ(empty.name, "");

  Register const partial("7,r,sts", 4);
  EXPECT_EQ(partial.number, 28u);
  EXPECT_EQ(partial.name, "r");
  EXPECT_EQ(partial.type, RegisterType::Sts);
  EXPECT_FALSE(partial.writeable);
  EXPECT_EQ(partial.width, 0u);
}

TEST(RegisterFileLine, ExtraFieldsAfterWidthAreIgnored) {
  Register const reg("9,r,ctl,false,12,garbage,99999", 1);
  EXPECT_EQ(reg.number, 9u);
  EXPECT_EQ(reg.width, 12u);
  EXPECT_EQ(reg.type, RegisterType::Ctl);
  EXPECT_FALSE(reg.writeable);
}

using RegisterFileDeathTest = ::testing::Test;

TEST_F(RegisterFileDeathTest, ZeroAddressBlockSizeIsFatal) {
  EXPECT_DEATH(Register("1,a,cfg,true,32", 0),
               "condition: addrBlockSize\n"
               "  message:   a register file's address block size must not be 0\n"
               "  unit:      TarnRegFile/RegisterFile\n"
               "  function:  TarnRegFile::Register::Register\\(const std::string_view&, U8\\)");
}

TEST(RegisterFileTypes, TextFormsRoundTrip) {
  struct Case {
    RegisterType type;
    char const* text;
  };
  Case const cases[] = {{RegisterType::Reserved, "reserved"}, {RegisterType::Const, "const"},
                        {RegisterType::Cfg, "cfg"},           {RegisterType::Sts, "sts"},
                        {RegisterType::Counter, "counter"},   {RegisterType::Ctl, "ctl"}};
  for (auto const& c : cases) {
    EXPECT_EQ(Register::regTypeToString(c.type), c.text);
    EXPECT_EQ(Register::regTypeFromString(c.text), c.type);
  }
  EXPECT_EQ(static_cast<U8>(RegisterType::Unknown), 0);
  EXPECT_EQ(static_cast<U8>(RegisterType::Ctl), 6);
}

TEST(RegisterFileTypes, UnrecognisedValuesAndTokens) {
  for (char const* token : {"", "CFG", "Cfg", "cfg ", " cfg", "(unknown)", "status", "cf"})
    EXPECT_EQ(Register::regTypeFromString(token), RegisterType::Unknown) << token;
  std::string const& unknown = Register::regTypeToString(RegisterType::Unknown);
  EXPECT_EQ(unknown, "(unknown)");
  // Every unnamed value shares the one process-lifetime string.
  EXPECT_EQ(&Register::regTypeToString(static_cast<RegisterType>(7)), &unknown);
  EXPECT_EQ(&Register::regTypeToString(static_cast<RegisterType>(255)), &unknown);
  EXPECT_EQ(&Register::regTypeToString(RegisterType::Cfg), &Register::regTypeToString(RegisterType::Cfg));
}

// ---------------------------------------------------------------- whole files

TEST(RegisterFileLoad, RefusesAnythingButTheExactHeader) {
  for (char const* csv : {"", "\n", "number,name,type,writeable,width \n", "Number,name,type,writeable,width\n",
                          "number,name,type,writeable,width,\n", "number,name,type,writeable\n",
                          " number,name,type,writeable,width\n", "number,name,type,writeable,width\r\r\n",
                          "1,a,cfg,true,32\n"}) {
    SCOPED_TRACE(csv);
    EXPECT_EQ(runtimeErrorOf([&] { load(csv); }), "Encountered wrong CSV header!");
  }
}

TEST(RegisterFileLoad, AcceptsLfCrlfAndMissingFinalNewline) {
  for (char const* csv : {"number,name,type,writeable,width\n3,r3,cfg,true,32\n4,r4,sts,false,8\n",
                          "number,name,type,writeable,width\r\n3,r3,cfg,true,32\r\n4,r4,sts,false,8\r\n",
                          "number,name,type,writeable,width\n3,r3,cfg,true,32\n4,r4,sts,false,8",
                          "number,name,type,writeable,width\r\n3,r3,cfg,true,32\r\n4,r4,sts,false,8\r"}) {
    SCOPED_TRACE(csv);
    RegisterFile const file = load(csv);
    ASSERT_EQ(file.size(), 2u);
    EXPECT_EQ(file.findRegNameByAddr(12), "r3");
    EXPECT_EQ(file.findRegNameByAddr(16), "r4");
    EXPECT_EQ(file.findRegisterByName("r4").width, 8u);
    EXPECT_FALSE(file.findRegisterByName("r4").writeable);
  }
  EXPECT_EQ(load("number,name,type,writeable,width").size(), 0u);
  EXPECT_EQ(load("number,name,type,writeable,width\r\n").size(), 0u);
}

TEST(RegisterFileLoad, AddressesAreScaledByBlockSize) {
  RegisterFile const file = load(std::string(kHeader) + "3,r3,cfg,true,32\n", 4);
  EXPECT_EQ(file.findRegNameByAddr(12), "r3");
  EXPECT_EQ(file.findRegisterByName("r3").number, 12u);
  EXPECT_EQ(runtimeErrorOf([&] { file.findRegNameByAddr(3); }), "RegisterFile does not have address: 3!");

  RegisterFile const bytes = load(std::string(kHeader) + "3,r3,cfg,true,32\n", 1);
  EXPECT_EQ(bytes.findRegNameByAddr(3), "r3");
}

TEST(RegisterFileLoad, BlankLineBecomesAnEmptyNamedRecord) {
  Kiv::TraceCapture cap("TarnRegFile/*");
  RegisterFile const file = load(std::string(kHeader) + "1,a,cfg,true,32\n\n2,b,cfg,true,32\n");
  EXPECT_TRUE(cap.contains("Incomplete CSV fields. Found 0 fields only.", 8));
  EXPECT_EQ(file.size(), 3u);
  EXPECT_TRUE(file.hasRegName(""));
  EXPECT_EQ(file.findRegisterByName("").number, 0u);
  EXPECT_EQ(file.findRegNameByAddr(0), "");
}

TEST(RegisterFileLoad, DuplicateNameKeepsFirstRecordButSecondLineClaimsItsAddress) {
  RegisterFile const file = load(std::string(kHeader) + "1,a,cfg,true,32\n2,a,sts,false,8\n");
  Register const& a = file.findRegisterByName("a");
  EXPECT_EQ(a.number, 4u);
  EXPECT_EQ(a.type, RegisterType::Cfg);
  EXPECT_TRUE(a.writeable);
  EXPECT_EQ(a.width, 32u);
  EXPECT_EQ(file.size(), 1u);
  EXPECT_EQ(file.findRegNameByAddr(4), "a");
  EXPECT_EQ(file.findRegNameByAddr(8), "a");
  EXPECT_EQ(file.namesByAddress().size(), 2u);
}

TEST(RegisterFileLoad, DuplicateAddressKeepsFirstName) {
  RegisterFile const file = load(std::string(kHeader) + "5,first,cfg,true,32\n5,second,sts,false,8\n");
  EXPECT_EQ(file.findRegNameByAddr(20), "first");
  EXPECT_EQ(file.findRegisterByName("first").number, 20u);
  EXPECT_EQ(file.findRegisterByName("second").number, 20u);
  EXPECT_EQ(file.size(), 2u);
}

TEST(RegisterFileLoad, ABadLineAbandonsTheWholeLoad) {
  struct Case {
    char const* line;
    char const* message;
  };
  Case const cases[] = {{"x,b,cfg,true,32", "Invalid address token"},
                        {"2,b,cfg,true,wide", "Invalid width token"},
                        {"2,b,cfg,true,64", "Unsupported register width"}};
  for (auto const& c : cases) {
    SCOPED_TRACE(c.line);
    std::string const csv = std::string(kHeader) + "1,a,cfg,true,32\n" + c.line + "\n3,c,cfg,true,32\n";
    EXPECT_EQ(runtimeErrorOf([&] { load(csv); }), c.message);
  }
}

TEST(RegisterFileLoad, TracesToleratedLinesAndStillStoresThem) {
  Kiv::TraceCapture cap("TarnRegFile/*");
  RegisterFile const file =
      load(std::string(kHeader) + "1,odd,Status,true,32\n2,extra,cfg,true,32,note\n3,short,cfg\n");
  EXPECT_TRUE(cap.contains("Unknown register type 'Status'", 8));
  EXPECT_TRUE(cap.contains("Found extraneous field(s) in CSV file.", 8));
  EXPECT_TRUE(cap.contains("Incomplete CSV fields. Found 3 fields only.", 8));
  EXPECT_EQ(file.findRegisterByName("odd").type, RegisterType::Unknown);
  EXPECT_EQ(file.findRegisterByName("extra").width, 32u);
  EXPECT_EQ(file.findRegNameByAddr(12), "short");
}

TEST(RegisterFileLookup, MissesThrowExactMessagesAndKeysAreExact) {
  RegisterFile const file = load(std::string(kHeader) + "1,Scratch,cfg,true,32\n");
  EXPECT_TRUE(file.hasRegName("Scratch"));
  EXPECT_TRUE(file.hasRegName(std::string_view("Scratch")));
  for (char const* miss : {"scratch", "Scratch ", " Scratch", "", "Scratch\r"}) {
    EXPECT_FALSE(file.hasRegName(miss)) << miss;
    EXPECT_EQ(runtimeErrorOf([&] { file.findRegisterByName(miss); }),
              std::string("RegisterFile does not have register '") + miss + "'!");
  }
  EXPECT_EQ(runtimeErrorOf([&] { file.findRegNameByAddr(4294967295u); }),
            "RegisterFile does not have address: 4294967295!");
  EXPECT_EQ(&file.findRegisterByName("Scratch"), &file.registers().at("Scratch"));
}

TEST(RegisterFileLookup, NullNameIsNeverFoundEvenWhenTheEmptyNameIs) {
  RegisterFile const file = load(std::string(kHeader) + "\n");
  ASSERT_TRUE(file.hasRegName(""));
  char const* const none = nullptr;
  EXPECT_FALSE(file.hasRegName(none));
  EXPECT_EQ(runtimeErrorOf([&] { file.findRegisterByName(none); }), "RegisterFile does not have register '(null)'!");
  EXPECT_EQ(runtimeErrorOf([&] { RegisterFile(none, 4); }), "Error opening CSV file (null)");
}

// ---------------------------------------------------------------- files on disk

class RegisterFilePath : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/tmp/tarn_regfile_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    for (auto const& f : files_) unlink(f.c_str());
    rmdir(dir_.c_str());
  }
  std::string write(char const* name, std::string const& content) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    files_.push_back(path);
    return path;
  }
  std::string dir_;
  std::vector<std::string> files_;
};

TEST_F(RegisterFilePath, LoadsAFile) {
  std::string const path = write("map.csv", std::string(kHeader) + "16,scratch,cfg,true,32\n17,rev,const,false,16");
  RegisterFile const file(path.c_str(), 4);
  EXPECT_EQ(file.findRegNameByAddr(64), "scratch");
  EXPECT_EQ(static_cast<std::string>(file.findRegisterByName("rev")), "0x000044 rev readonly 16");
}

TEST_F(RegisterFilePath, LargeFileLoadsEveryLine) {
  // Far more than one read buffer and than the maps' initial capacity.
  constexpr U32 kCount = 20000;
  std::string csv = kHeader;
  for (U32 i = 0; i < kCount; ++i) csv += std::to_string(i) + ",reg_" + std::to_string(i) + ",sts,false,16\r\n";
  std::string const path = write("large.csv", csv);
  RegisterFile const fromFile(path.c_str(), 4);
  RegisterFile const fromStream = load(csv, 4);
  for (RegisterFile const* file : {&fromFile, &fromStream}) {
    ASSERT_EQ(file->size(), kCount);
    EXPECT_EQ(file->namesByAddress().size(), kCount);
    for (U32 i = 0; i < kCount; i += 997) {
      EXPECT_EQ(file->findRegNameByAddr(i * 4), "reg_" + std::to_string(i));
      EXPECT_EQ(file->findRegisterByName(("reg_" + std::to_string(i)).c_str()).number, i * 4);
    }
    EXPECT_EQ(file->findRegNameByAddr((kCount - 1) * 4), "reg_" + std::to_string(kCount - 1));
  }
}

TEST_F(RegisterFilePath, MissingFileNamesThePath) {
  std::string const path = dir_ + "/absent.csv";
  EXPECT_EQ(runtimeErrorOf([&] { RegisterFile(path.c_str(), 4); }), "Error opening CSV file " + path);
  EXPECT_EQ(runtimeErrorOf([&] { RegisterFile(dir_.c_str(), 4); }), "Encountered wrong CSV header!");
}

TEST(RegisterFileShippedMaps, DemoChipMapIsValidAndUsesEveryType) {
  Kiv::TraceCapture cap("TarnRegFile/*");
  RegisterFile const file(TARN_SOURCE_DIR "/examples/maps/demo_chip.csv", 4);
  EXPECT_TRUE(cap.records().empty()) << cap.records().front().text;
  EXPECT_GE(file.size(), 18u);
  EXPECT_EQ(file.namesByAddress().size(), file.size());  // no duplicate names or addresses
  bool seen[7] = {};
  for (auto const& [name, reg] : file.registers()) {
    EXPECT_EQ(file.findRegNameByAddr(reg.number), name);
    EXPECT_EQ(reg.number % 4, 0u);
    seen[static_cast<U8>(reg.type)] = true;
  }
  for (int t = 1; t <= 6; ++t) EXPECT_TRUE(seen[t]) << Register::regTypeToString(static_cast<RegisterType>(t));
  EXPECT_FALSE(seen[0]);
}

}  // namespace
