#include "CommandLine.h"

#include "NumberParser.h"
#include "ToolError.h"

#include "TarnRegFile/SystemStatusShm.h"
#include "TarnRegFile/platform/ShmRoot.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdio>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

namespace Tarnreg {

namespace {

constexpr U32 kMaxI2cAddress = 0x7f;

U32 number(std::string const& text, char const* what, U32 max, char const* range) {
  if (auto const value = parseNumber(text, max)) return *value;
  throw ToolError::usage(
      fmt::format("{} '{}' is not a number in {}: give decimal (such as 42) or 0x-hex (such as 0x2a)", what, text, range));
}

// What CLI11 found wrong, on one line.
std::string oneLine(std::string text) {
  for (char& c : text)
    if (c == '\n' || c == '\r') c = ' ';
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

// The raw text of every option; conversions and cross-checks are made afterwards so
// that each mistake gets a message of its own.
struct RawLine {
  std::string map;
  bool mock = false;
  std::string mockFile;
  std::string pci;
  std::string i2c;
  std::string i2cAsync;
  std::string addr;
  std::string flavour;
  bool json = false;
  bool force = false;
  int verbosity = 0;
  std::string reg;
  std::string value;
  std::string lookupAddress;
  std::string shadowRoot = Kiv::Shm::Root::kDefaultDir;
  std::string shadowPath;
  std::string system;
  std::string chip;
  std::string devId;
  std::string profile;
  std::string hwApi;
};

struct Parsed {
  RawLine raw;
  Command command = Command::List;
  bool mockFileGiven = false;
  bool pciGiven = false;
  bool i2cGiven = false;
  bool i2cAsyncGiven = false;
  bool addrGiven = false;
  bool flavourGiven = false;
  StatusAction statusAction = StatusAction::Show;
  AgentCommand agent;
};

Parsed parseRaw(int argc, char const* const* argv) {
  Parsed parsed;
  RawLine& raw = parsed.raw;
  CLI::App app("", "tarnreg");
  app.set_help_flag("-h,--help");
  // Options of the main command may follow the subcommand ("tarnreg --map m.csv list --json").
  app.fallthrough();
  // At most one command; a missing one is reported below in our own words, and an
  // unknown word is reported by the parser as an unexpected argument.
  app.require_subcommand(0, 1);

  app.add_option("--map", raw.map);
  app.add_flag("--mock", raw.mock);
  auto* mockFile = app.add_option("--mock-file", raw.mockFile);
  auto* pci = app.add_option("--pci", raw.pci);
  auto* i2c = app.add_option("--i2c", raw.i2c);
  auto* i2cAsync = app.add_option("--i2c-async", raw.i2cAsync);
  auto* addr = app.add_option("--addr", raw.addr);
  auto* flavour = app.add_option("--flavour", raw.flavour)->check(CLI::IsMember({"block", "word"}));
  app.add_flag("--json", raw.json);
  app.add_flag("-f,--force", raw.force);
  app.add_flag("-v", raw.verbosity);

  auto* read = app.add_subcommand("read");
  read->add_option("REG", raw.reg)->required();
  auto* write = app.add_subcommand("write");
  write->add_option("REG", raw.reg)->required();
  write->add_option("VALUE", raw.value)->required();
  auto* dump = app.add_subcommand("dump");
  auto* list = app.add_subcommand("list");
  auto* lookup = app.add_subcommand("lookup");
  lookup->add_option("ADDRESS", raw.lookupAddress)->required();
  auto* shadow = app.add_subcommand("shadow");
  auto* show = shadow->add_subcommand("show");
  show->add_option("--root", raw.shadowRoot);
  show->add_option("PATH", raw.shadowPath)->required();
  auto* watch = shadow->add_subcommand("watch");
  watch->add_option("--root", raw.shadowRoot);
  watch->add_option("PATH", raw.shadowPath)->required();
  auto* status = app.add_subcommand("status");
  status->require_subcommand(0, 1);
  status->add_option("--root", raw.shadowRoot);
  status->add_option("--system", raw.system);
  auto* statusShow = status->add_subcommand("show");
  auto* statusAdd = status->add_subcommand("add");
  statusAdd->add_option("CHIP", raw.chip)->required();
  statusAdd->add_option("DEVID", raw.devId)->required();
  statusAdd->add_option("PROFILE", raw.profile)->required();
  auto* statusRemove = status->add_subcommand("remove");
  statusRemove->add_option("CHIP", raw.chip)->required();
  auto* statusProfile = status->add_subcommand("profile");
  statusProfile->add_option("PROFILE", raw.profile)->required();
  statusProfile->add_option("MAJOR.MINOR", raw.hwApi)->required();
  auto* statusRemoveProfile = status->add_subcommand("remove-profile");
  statusRemoveProfile->add_option("PROFILE", raw.profile)->required();
  AgentCommandLine agentLine;
  agentLine.addTo(app, *shadow);

  app.parse(argc, argv);

  if (*read) parsed.command = Command::Read;
  else if (*write) parsed.command = Command::Write;
  else if (*dump) parsed.command = Command::Dump;
  else if (*list) parsed.command = Command::List;
  else if (*lookup) parsed.command = Command::Lookup;
  else if (*show) parsed.command = Command::ShadowShow;
  else if (*watch) parsed.command = Command::ShadowWatch;
  else if (agentLine.given()) parsed.command = Command::Agent;
  else if (*shadow) throw ToolError::usage("shadow needs a command: show, watch or diff (see tarnreg --help)");
  else if (*status) {
    parsed.command = Command::Status;
    if (*statusShow) parsed.statusAction = StatusAction::Show;
    else if (*statusAdd) parsed.statusAction = StatusAction::Add;
    else if (*statusRemove) parsed.statusAction = StatusAction::Remove;
    else if (*statusProfile) parsed.statusAction = StatusAction::Profile;
    else if (*statusRemoveProfile) parsed.statusAction = StatusAction::RemoveProfile;
    else throw ToolError::usage("status needs a command: show, add, remove, profile or remove-profile (see tarnreg --help)");
  }
  else throw ToolError::usage(
      "no command given: read, write, dump, list, lookup, shadow, status, field, reg or agent (see tarnreg --help)");
  if (parsed.command == Command::Agent) parsed.agent = agentLine.command();
  parsed.mockFileGiven = mockFile->count() > 0;
  parsed.pciGiven = pci->count() > 0;
  parsed.i2cGiven = i2c->count() > 0;
  parsed.i2cAsyncGiven = i2cAsync->count() > 0;
  parsed.addrGiven = addr->count() > 0;
  parsed.flavourGiven = flavour->count() > 0;
  return parsed;
}

TransportChoice transportOf(Parsed const& parsed) {
  RawLine const& raw = parsed.raw;
  TransportChoice choice;
  int const chosen = int(raw.mock) + int(parsed.pciGiven) + int(parsed.i2cGiven) + int(parsed.i2cAsyncGiven);
  if (chosen > 1) throw ToolError::usage("choose one transport: --mock, --pci, --i2c or --i2c-async");
  if (parsed.mockFileGiven && !raw.mock) throw ToolError::usage("--mock-file goes with --mock");
  if (parsed.pciGiven && raw.pci.empty()) throw ToolError::usage("--pci needs a resource file");
  if (parsed.i2cGiven && raw.i2c.empty()) throw ToolError::usage("--i2c needs a device node");
  if (parsed.i2cAsyncGiven && raw.i2cAsync.empty()) throw ToolError::usage("--i2c-async needs a device node");
  if (parsed.flavourGiven && !parsed.i2cGiven) throw ToolError::usage("--flavour goes with --i2c");
  if (parsed.addrGiven && !parsed.i2cGiven && !parsed.i2cAsyncGiven)
    throw ToolError::usage("--addr goes with --i2c or --i2c-async");
  if (raw.mock) {
    choice.kind = TransportKind::Mock;
    if (parsed.mockFileGiven) {
      if (raw.mockFile.empty()) throw ToolError::usage("--mock-file needs a file name");
      choice.mockFile = raw.mockFile;
    }
  } else if (parsed.pciGiven) {
    choice.kind = TransportKind::Pci;
    choice.pciResource = raw.pci;
  } else if (parsed.i2cGiven) {
    choice.kind = TransportKind::I2c;
    if (!parsed.addrGiven) throw ToolError::usage("--i2c needs the chip's address: --addr ADDR");
    choice.i2cDevNode = raw.i2c;
    choice.i2cAddress = number(raw.addr, "I2C address", kMaxI2cAddress, "0x00 - 0x7f");
    choice.i2cWordFlavour = raw.flavour == "word";
  } else if (parsed.i2cAsyncGiven) {
    choice.kind = TransportKind::I2cAsync;
    if (!parsed.addrGiven) throw ToolError::usage("--i2c-async needs the chip's address: --addr ADDR");
    choice.i2cDevNode = raw.i2cAsync;
    choice.i2cAddress = number(raw.addr, "I2C address", kMaxI2cAddress, "0x00 - 0x7f");
  }
  return choice;
}

bool needsDevice(Command command) {
  return command == Command::Read || command == Command::Write || command == Command::Dump;
}

char const* commandName(Command command) {
  switch (command) {
    case Command::Read: return "read";
    case Command::Write: return "write";
    case Command::Dump: return "dump";
    case Command::List: return "list";
    case Command::Lookup: return "lookup";
    case Command::ShadowShow: return "shadow show";
    case Command::ShadowWatch: return "shadow watch";
    case Command::Status: return "status";
    case Command::Agent: return "agent";
  }
  return "?";
}

// "1.2": two decimal numbers of a hardware interface version.
std::pair<U32, U32> hwApiOf(std::string const& text) {
  auto const dot = text.find('.');
  std::optional<U32> major, minor;
  if (dot != std::string::npos) {
    major = parseNumber(std::string_view(text).substr(0, dot));
    minor = parseNumber(std::string_view(text).substr(dot + 1));
  }
  if (!major || !minor)
    throw ToolError::usage(fmt::format("MAJOR.MINOR '{}' is not a version such as 1.2 (two numbers joined by a dot)",
                                       text));
  return {*major, *minor};
}

void checkName(std::string const& name, char const* what) {
  if (name.empty()) throw ToolError::usage(fmt::format("{} must not be empty", what));
  if (name.size() > TarnRegFile::SystemStatusRecord::kMaxNameBytes)
    throw ToolError::usage(fmt::format("{} '{}' is longer than {} bytes", what, name,
                                       TarnRegFile::SystemStatusRecord::kMaxNameBytes));
}

void checkStatus(Parsed const& parsed, Options& options) {
  RawLine const& raw = parsed.raw;
  if (raw.system.empty()) throw ToolError::usage("status needs the system: --system NAME");
  try {
    TarnRegFile::systemStatusPath(raw.system);
  } catch (std::exception const& e) {
    throw ToolError::usage(e.what());
  }
  if (raw.json && parsed.statusAction != StatusAction::Show)
    throw ToolError::usage("--json goes with status show (the other status commands print nothing)");
  options.statusSystem = raw.system;
  options.statusAction = parsed.statusAction;
  switch (parsed.statusAction) {
    case StatusAction::Add:
      checkName(raw.chip, "CHIP");
      checkName(raw.profile, "PROFILE");
      options.chipName = raw.chip;
      options.devId = static_cast<U8>(number(raw.devId, "DEVID", 0xFF, "0 - 255"));
      options.profileName = raw.profile;
      break;
    case StatusAction::Remove:
      checkName(raw.chip, "CHIP");
      options.chipName = raw.chip;
      break;
    case StatusAction::Profile:
      checkName(raw.profile, "PROFILE");
      options.profileName = raw.profile;
      std::tie(options.hwMajor, options.hwMinor) = hwApiOf(raw.hwApi);
      break;
    case StatusAction::RemoveProfile:
      checkName(raw.profile, "PROFILE");
      options.profileName = raw.profile;
      break;
    case StatusAction::Show: break;
  }
}

Options check(Parsed const& parsed) {
  RawLine const& raw = parsed.raw;
  Options options;
  options.command = parsed.command;
  options.json = raw.json;
  options.force = raw.force;
  options.verbosity = raw.verbosity;
  options.transport = transportOf(parsed);

  if (parsed.command == Command::Agent) {
    if (!raw.map.empty() || options.transport.kind != TransportKind::None)
      throw ToolError::usage("field, reg, agent and shadow diff ask tarnagent: they take no --map and no transport");
    options.agent = parsed.agent;
    return options;
  }
  if (parsed.command == Command::ShadowShow || parsed.command == Command::ShadowWatch ||
      parsed.command == Command::Status) {
    if (!raw.map.empty() || options.transport.kind != TransportKind::None)
      throw ToolError::usage(fmt::format("{} works on shared memory only: it takes no --map and no transport",
                                         commandName(parsed.command)));
    if (raw.force) throw ToolError::usage(fmt::format("{} takes no --force", commandName(parsed.command)));
    if (raw.shadowRoot.empty()) throw ToolError::usage("--root needs a directory");
    options.shadowRoot = raw.shadowRoot;
    options.shadowPath = raw.shadowPath;
    if (parsed.command == Command::Status) checkStatus(parsed, options);
    return options;
  }
  if (raw.map.empty()) throw ToolError::usage("--map MAP.csv is required");
  options.mapPath = raw.map;
  if (needsDevice(parsed.command) && options.transport.kind == TransportKind::None)
    throw ToolError::usage(fmt::format("{} needs a transport: --mock, --pci RESOURCE_FILE, --i2c DEVNODE --addr ADDR "
                                       "or --i2c-async DEVNODE --addr ADDR",
                                       commandName(parsed.command)));
  options.regName = raw.reg;
  if (parsed.command == Command::Write) options.value = number(raw.value, "VALUE", 0xFFFFFFFFu, "0 - 0xffffffff");
  if (parsed.command == Command::Lookup)
    options.address = number(raw.lookupAddress, "ADDRESS", 0xFFFFFFFFu, "0 - 0xffffffff");
  return options;
}

}  // namespace

std::string const& usageText() {
  static std::string const text = fmt::format(
      R"(Usage: tarnreg --map MAP TRANSPORT [-f] [--json] [-v] read REG
       tarnreg --map MAP TRANSPORT [-f] [--json] [-v] write REG VALUE
       tarnreg --map MAP TRANSPORT [--json] [-v] dump
       tarnreg --map MAP [TRANSPORT] [--json] list
       tarnreg --map MAP [TRANSPORT] [--json] lookup ADDRESS
       tarnreg shadow show [--root DIR] PATH [--json]
       tarnreg shadow watch [--root DIR] PATH [--json]
       tarnreg status [--root DIR] --system SYSTEM show [--json]
       tarnreg status [--root DIR] --system SYSTEM add CHIP DEVID PROFILE
       tarnreg status [--root DIR] --system SYSTEM remove CHIP
       tarnreg status [--root DIR] --system SYSTEM profile PROFILE MAJOR.MINOR
       tarnreg status [--root DIR] --system SYSTEM remove-profile PROFILE
       tarnreg field write|read CHIP REG FIELD [VALUE] [--runtime-dir DIR] [--json]
       tarnreg reg write|read CHIP REG [VALUE] [--runtime-dir DIR] [--json]
       tarnreg agent call CHIP OP [ARG...] [--runtime-dir DIR] [--json]
       tarnreg agent chips [--runtime-dir DIR] [--json]
       tarnreg shadow diff CHIP [--runtime-dir DIR] [--json]
  MAP is a CSV register map (first line "number,name,type,writeable,width")
  TRANSPORT is one of:
    --mock [--mock-file FILE]   simulated registers, kept in FILE
                                (default {})
    --pci RESOURCE_FILE         memory-mapped PCI resource (or any regular file), such as
                                /sys/bus/pci/devices/0000:03:00.0/resource0
    --i2c DEVNODE --addr ADDR [--flavour block|word]
                                i2c-dev adapter node (such as /dev/i2c-1) and the
                                chip's address on that bus
    --i2c-async DEVNODE --addr ADDR
                                the same bus through the asynchronous hardware-access
                                manager: register n is SMBus offset n, 32 bits; each
                                access waits at most the manager's timeout (1 s)
  ADDR is the chip's 7-bit I2C address (0x00 - 0x7f)
  --flavour block (the default): 16-bit register address, 32-bit data in one block
  --flavour word: 8-bit register address (registers 0 - 255), 16-bit SMBus word
  REG is a register name of MAP
  VALUE is decimal (305419896) or 0x-hex (0x12345678), 0 - 0xffffffff
  ADDRESS is a byte address, decimal or 0x-hex: the register's number in MAP
    times 4 (mock, PCI, --i2c-async, no transport) or times 1 (--i2c)
  DIR is the shared-memory root (default {}); PATH names a shadow-field
    table below it, such as TarnRegFile/shadowFieldsConfig/chip0
  SYSTEM names the system whose status is published at
    hardware/SYSTEM/system/status below DIR
  CHIP, PROFILE are names of 1 - 63 bytes; DEVID is the chip's device
    identifier, 0 - 255; MAJOR.MINOR is the profile's hardware interface
    version, such as 1.2
  Commands:
    read      print the register's value
    write     write VALUE to the register (prints nothing)
    dump      read every register of MAP, sorted by address
    list      print every register of MAP (address, name, type, width, access);
              sorted by address, no device is touched
    lookup    print the name of the register at ADDRESS; no device is touched
    shadow show  print the entries of a shadow-field table (address, start, size,
              value) sorted by key, reading it alongside the process that writes it
    shadow watch print each change another process commits to the table, as it
              happens ("changed ADDRESS START SIZE VALUE" or "removed ADDRESS
              START SIZE"; --json: one object per line), until SIGINT or SIGTERM
              (exit status 0 then)
    status    publish the status of SYSTEM's chips as the platform does (the
              agent follows it): show prints the chips (name, devId, profile)
              and the profiles (name, hwApi); add publishes a chip or replaces
              its DEVID and PROFILE (PROFILE must be published); remove
              withdraws a chip; profile publishes a profile or replaces its
              version; remove-profile withdraws a profile no chip runs.
              The changes print nothing
  Commands for a running tarnagent (docs/agent.md), over its control socket
  DIR/control.sock (default DIR: the agent's, such as /run/tarnagent for root):
    field write|read  write a logical field of CHIP / print its last written value
    reg write|read    write a logical register (up to 64 bits) / print its last value
    agent call        call an operation of CHIP by name (fieldWrite, regWrite,
                      fieldGetLastWritten, regGetLastWritten) and print its result
    agent chips       list the described chips and whether each is ready
    shadow diff       desired against applied value of every physical field of CHIP,
                      the pending ones marked *
  Options:
    --json       print JSON: an object per register or entry, an array for dump,
                 list and shadow show, an object for status show
    -f, --force  also write read-only registers and values wider than the register
    -v           trace to stderr (levels 0-5; -vv: every level)
    -h, --help   print this text
  Exit status: 0 success; 1 failure (map, device, unknown register, I/O error,
    missing table, unknown chip or profile, a status another process is changing);
    2 usage error. Every failure prints one "tarnreg: ..." line on stderr.
  Examples:
    tarnreg --map chip.csv --mock write scratch 0x12345678
    tarnreg --map chip.csv --mock read scratch
    tarnreg --map chip.csv --pci /sys/bus/pci/devices/0000:03:00.0/resource0 dump
    tarnreg --map chip.csv --i2c /dev/i2c-1 --addr 0x50 --flavour word read fan_pwm_duty
    tarnreg --map chip.csv --i2c-async /dev/i2c-1 --addr 0x50 dump
    tarnreg --map chip.csv list --json
    tarnreg --map chip.csv lookup 0x8
    tarnreg shadow show TarnRegFile/shadowFieldsStatus/chip0
    tarnreg shadow watch --json TarnRegFile/shadowFieldsStatus/chip0
    tarnreg status --system sys0 profile p1 1.2
    tarnreg status --system sys0 add chip0 7 p1
    tarnreg status --system sys0 show
)",
      TarnRegFile::MockTransportDescriptor::kDefaultDumpPath, Kiv::Shm::Root::kDefaultDir);
  return text;
}

std::optional<Options> parseCommandLine(int argc, char const* const* argv) {
  Parsed parsed;
  try {
    parsed = parseRaw(argc, argv);
  } catch (CLI::CallForHelp const&) {
    std::fputs(usageText().c_str(), stdout);
    return std::nullopt;
  } catch (CLI::CallForAllHelp const&) {
    std::fputs(usageText().c_str(), stdout);
    return std::nullopt;
  } catch (CLI::ParseError const& e) {
    throw ToolError::usage(oneLine(e.what()) + " (see tarnreg --help)");
  }
  return check(parsed);
}

}  // namespace Tarnreg
