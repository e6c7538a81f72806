#include "TarnRegFile/Errors.h"
#include "TarnRegFile/RegisterFile.h"

#include "TarnRegFile/platform/Trace.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

using TarnRegFile::MapError;
using TarnRegFile::Register;
using TarnRegFile::RegisterFile;
using TarnRegFile::RegisterType;

namespace {

constexpr char kHeader[] = "number,name,type,writeable,width\n";

// The MapError that @p fn throws (its text in what).
template <class Fn>
MapError mapErrorOf(Fn&& fn) {
  try {
    fn();
  } catch (MapError const& e) {
    return e;
  }
  return MapError("<no exception>", "", 0);
}

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

// The text form shows every field but the type: number, name, writeable and width. Problems the parser
// tolerates leave one level-8 trace; a clean line none.
TEST(RegisterFileLine, FieldsTextFormAndTracesOfToleratedProblems) {
  struct Case {
    char const* line;
    U8 blockSize;
    RegisterType type;
    char const* text;
    char const* trace;
  };
  using T = RegisterType;
  Case const cases[] = {
      {"16,scratch,cfg,true,32", 4, T::Cfg, "0x000040 scratch writeable 32", nullptr},
      {"1,a,sts,false,8", 1, T::Sts, "0x000001 a readonly 8", nullptr},
      {"0,zero,ctl,false,1", 1, T::Ctl, "00000000 zero readonly 1", nullptr},
      {"1193046,mid,reserved,true,16", 1, T::Reserved, "0x123456 mid writeable 16", nullptr},
      {"19088743,wide,const,false,32", 1, T::Const, "0x1234567 wide readonly 32", nullptr},
      {"2,cnt,counter,true,0", 2, T::Counter, "0x000004 cnt writeable 0", nullptr},
      // Only the exact lower-case "false" makes a register read-only.
      {"1,a,cfg,False,32", 1, T::Cfg, "0x000001 a writeable 32", nullptr},
      {"1,a,cfg,,32", 1, T::Cfg, "0x000001 a writeable 32", nullptr},
      // Names are kept byte for byte; a separator at the very end yields no sixth field.
      {"3, Sp ace ,cfg,true,8,", 1, T::Cfg, "0x000003  Sp ace  writeable 8", nullptr},
      {"9,r,ctl,false,12,,99", 1, T::Ctl, "0x000009 r readonly 12", "Found extraneous field(s) in CSV file."},
      // The scaled address wraps silently.
      {"4294967295,wrap,cfg,true,32", 2, T::Cfg, "0xfffffffe wrap writeable 32", nullptr},
      {"1,a,CFG,true,32", 1, T::Unknown, "0x000001 a writeable 32", "Unknown register type 'CFG'"},
      {"1,a,,true,32", 1, T::Unknown, "0x000001 a writeable 32", "Unknown register type ''"},
      // Fields a short line does not supply are zero.
      {"1,a,cfg,true,", 1, T::Cfg, "0x000001 a writeable 0", "Incomplete CSV fields. Found 4 fields only."},
      {"7,r,sts", 4, T::Sts, "0x00001c r readonly 0", "Incomplete CSV fields. Found 3 fields only."},
      {"", 4, T::Unknown, "00000000  readonly 0", "Incomplete CSV fields. Found 0 fields only."},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.line);
    Kiv::TraceCapture cap("TarnRegFile/*");
    Register const reg(c.line, c.blockSize);
    EXPECT_EQ(static_cast<std::string>(reg), c.text);
    EXPECT_EQ(reg.type, c.type);
    ASSERT_EQ(cap.records().size(), c.trace ? 1u : 0u);
    if (c.trace) {
      EXPECT_EQ(cap.records()[0].unit, "TarnRegFile/RegisterFile");
      EXPECT_EQ(cap.records()[0].level, 8u);
      EXPECT_EQ(cap.records()[0].text, c.trace);
    }
  }
}

TEST(RegisterFileLine, BadNumbersThrowExactMessages) {
  std::pair<char const*, char const*> const cases[] = {
      {"0x10,a,cfg,true,32", "Invalid address token"},   {"-1,a,cfg,true,32", "Invalid address token"},
      {"+1,a,cfg,true,32", "Invalid address token"},     {" 1,a,cfg,true,32", "Invalid address token"},
      {"1 ,a,cfg,true,32", "Invalid address token"},     {",a,cfg,true,32", "Invalid address token"},
      {"4294967296,a,cfg,true,32", "Invalid address token"}, {"1,a,cfg,true,33", "Unsupported register width"},
      {"1,a,cfg,true,4294967295", "Unsupported register width"}, {"1,a,cfg,true,x", "Invalid width token"},
      {"1,a,cfg,true,8\r", "Invalid width token"},       {"1,a,cfg,true,-1", "Invalid width token"},
      {"1,a,cfg,true,,", "Invalid width token"},
  };
  for (auto const& [line, message] : cases)
    EXPECT_EQ(runtimeErrorOf([&] { Register(line, 4); }), message) << line;
}

using RegisterFileDeathTest = ::testing::Test;

TEST_F(RegisterFileDeathTest, ZeroAddressBlockSizeIsFatal) {
  EXPECT_DEATH(Register("1,a,cfg,true,32", 0),
               "condition: addrBlockSize\n"
               "  message:   a register file's address block size must not be 0\n"
               "  unit:      TarnRegFile/RegisterFile\n"
               "  function:  TarnRegFile::Register::Register\\(const std::string_view&, U8\\)");
}

TEST(RegisterFileTypes, TextFormsRoundTripAndEverythingElseIsUnknown) {
  char const* const texts[] = {"reserved", "const", "cfg", "sts", "counter", "ctl"};
  for (U8 v = 1; v <= 6; ++v) {
    EXPECT_EQ(Register::regTypeToString(static_cast<RegisterType>(v)), texts[v - 1]);
    EXPECT_EQ(Register::regTypeFromString(texts[v - 1]), static_cast<RegisterType>(v));
  }
  for (char const* token : {"", "CFG", "cfg ", "(unknown)", "cf"})
    EXPECT_EQ(Register::regTypeFromString(token), RegisterType::Unknown) << token;
  // Every unnamed value shares the one process-lifetime string.
  std::string const& unknown = Register::regTypeToString(RegisterType::Unknown);
  EXPECT_EQ(unknown, "(unknown)");
  EXPECT_EQ(&Register::regTypeToString(static_cast<RegisterType>(7)), &unknown);
}

// ---------------------------------------------------------------- whole files

TEST(RegisterFileLoad, RefusesAnythingButTheExactHeader) {
  for (char const* csv : {"", "\n", "number,name,type,writeable,width \n", "Number,name,type,writeable,width\n",
                          "number,name,type,writeable,width,\n", "number,name,type,writeable,width\r\r\n",
                          "1,a,cfg,true,32\n"})
    EXPECT_EQ(runtimeErrorOf([&] { load(csv); }), "Encountered wrong CSV header!") << csv;
}

TEST(RegisterFileLoad, AcceptsLfCrlfAndMissingFinalNewline) {
  for (char const* csv : {"number,name,type,writeable,width\n3,r3,cfg,true,32\n4,r4,sts,false,8\n",
                          "number,name,type,writeable,width\r\n3,r3,cfg,true,32\r\n4,r4,sts,false,8\r\n",
                          "number,name,type,writeable,width\r\n3,r3,cfg,true,32\r\n4,r4,sts,false,8\r"}) {
    SCOPED_TRACE(csv);
    RegisterFile const file = load(csv);
    ASSERT_EQ(file.size(), 2u);
    EXPECT_EQ(file.findRegNameByAddr(12), "r3");
    EXPECT_EQ(file.findRegNameByAddr(16), "r4");
    EXPECT_EQ(file.findRegisterByName("r4").width, 8u);
  }
  EXPECT_EQ(load("number,name,type,writeable,width").size(), 0u);
}

TEST(RegisterFileLoad, DuplicatesKeepTheFirstButEveryLineClaimsItsAddressAndShortLinesAreStored) {
  RegisterFile const file = load(std::string(kHeader) + "1,a,cfg,true,32\n2,a,sts,false,8\n5,first,cfg,true,32\n"
                                                        "5,second,sts,false,8\n\n3,short,cfg\n");
  EXPECT_EQ(file.size(), 5u);
  Register const& a = file.findRegisterByName("a");
  EXPECT_EQ(a.number, 4u);
  EXPECT_EQ(a.type, RegisterType::Cfg);
  EXPECT_EQ(file.findRegNameByAddr(8), "a") << "the dropped second record still maps its address";
  EXPECT_EQ(file.findRegNameByAddr(20), "first");
  EXPECT_EQ(file.findRegisterByName("second").number, 20u);
  EXPECT_EQ(file.findRegNameByAddr(12), "short");
  // The blank line is a record with an empty name at address 0.
  EXPECT_EQ(file.findRegNameByAddr(0), "");
}

TEST(RegisterFileLoad, ABadLineAbandonsTheWholeLoad) {
  for (auto [line, message] : {std::pair{"x,b,cfg,true,32", "Invalid address token"},
                               {"2,b,cfg,true,wide", "Invalid width token"},
                               {"2,b,cfg,true,64", "Unsupported register width"}}) {
    std::string const csv = std::string(kHeader) + "1,a,cfg,true,32\n" + line + "\n3,c,cfg,true,32\n";
    MapError const e = mapErrorOf([&] { load(csv); });
    EXPECT_STREQ(e.what(), message) << line;
    EXPECT_EQ(e.line(), 3u);
    EXPECT_EQ(e.path(), "");
  }
}

TEST(RegisterFileLookup, MissesThrowExactMessagesAndKeysAreExact) {
  RegisterFile const file = load(std::string(kHeader) + "1,Scratch,cfg,true,32\n\n");
  EXPECT_TRUE(file.hasRegName("Scratch"));
  for (char const* miss : {"scratch", "Scratch ", "Scratch\r"}) {
    EXPECT_FALSE(file.hasRegName(miss)) << miss;
    EXPECT_EQ(runtimeErrorOf([&] { file.findRegisterByName(miss); }),
              std::string("RegisterFile does not have register '") + miss + "'!");
  }
  EXPECT_EQ(runtimeErrorOf([&] { file.findRegNameByAddr(4294967295u); }),
            "RegisterFile does not have address: 4294967295!");
  // A null name is never found, even where the empty name is.
  char const* const none = nullptr;
  ASSERT_TRUE(file.hasRegName(""));
  EXPECT_FALSE(file.hasRegName(none));
  EXPECT_EQ(runtimeErrorOf([&] { file.findRegisterByName(none); }), "RegisterFile does not have register '(null)'!");
  EXPECT_EQ(runtimeErrorOf([&] { RegisterFile(none, 4); }), "Error opening CSV file (null)");
}

// ---------------------------------------------------------------- files on disk

TEST(RegisterFilePath, LoadsLargeFilesAndNamesMissingOnes) {
  char pattern[] = "/tmp/tarn_regfile_test_XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  std::string const dir = pattern;
  // Far more than one read buffer and than the maps' initial capacity.
  constexpr U32 kCount = 5000;
  std::string csv = kHeader;
  for (U32 i = 0; i < kCount; ++i) csv += std::to_string(i) + ",reg_" + std::to_string(i) + ",sts,false,16\r\n";
  std::ofstream(dir + "/large.csv", std::ios::binary) << csv;
  RegisterFile const file((dir + "/large.csv").c_str(), 4);
  ASSERT_EQ(file.size(), kCount);
  EXPECT_EQ(file.namesByAddress().size(), kCount);
  for (U32 i : {0u, 997u, 4096u, kCount - 1}) {
    EXPECT_EQ(file.findRegNameByAddr(i * 4), "reg_" + std::to_string(i));
    EXPECT_EQ(file.findRegisterByName(("reg_" + std::to_string(i)).c_str()).width, 16u);
  }
  std::string const absent = dir + "/absent.csv";
  MapError const missing = mapErrorOf([&] { RegisterFile(absent.c_str(), 4); });
  EXPECT_EQ(missing.what(), "Error opening CSV file " + absent);
  EXPECT_EQ(missing.path(), absent);
  EXPECT_EQ(missing.line(), 0u);
  EXPECT_EQ(missing.errnum(), ENOENT);
  MapError const directory = mapErrorOf([&] { RegisterFile(dir.c_str(), 4); });
  EXPECT_STREQ(directory.what(), "Encountered wrong CSV header!");
  EXPECT_EQ(directory.errnum(), EISDIR);
  // Through a pipe, which cannot be read twice: the loader itself knows the line.
  std::string const fifo = dir + "/map.fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::thread writer([&] { std::ofstream(fifo) << kHeader << "0,a,cfg,true,8\n1,b,cfg,true,x8\n"; });
  MapError const piped = mapErrorOf([&] { RegisterFile(fifo.c_str(), 4); });
  writer.join();
  EXPECT_STREQ(piped.what(), "Invalid width token");
  EXPECT_EQ(piped.path(), fifo);
  EXPECT_EQ(piped.line(), 3u);
  std::filesystem::remove_all(dir);
}

TEST(RegisterFileShippedMaps, DemoChipMapIsValidAndUsesEveryType) {
  Kiv::TraceCapture cap("TarnRegFile/*");
  RegisterFile const file(TARN_SOURCE_DIR "/examples/maps/demo_chip.csv", 4);
  EXPECT_TRUE(cap.records().empty()) << cap.records().front().text;
  EXPECT_EQ(file.namesByAddress().size(), file.size());  // no duplicate names or addresses
  bool seen[7] = {};
  for (auto const& [name, reg] : file.registers()) {
    EXPECT_EQ(file.findRegNameByAddr(reg.number), name);
    seen[static_cast<U8>(reg.type)] = true;
  }
  for (int t = 0; t <= 6; ++t) EXPECT_EQ(seen[t], t != 0) << Register::regTypeToString(static_cast<RegisterType>(t));
}

}  // namespace
