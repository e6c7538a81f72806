#include "CommandLine.h"

#include "NumberParser.h"
#include "ToolError.h"

#include "TarnRegFile/platform/ShmRoot.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdio>

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
  AgentCommandLine agentLine;
  agentLine.addTo(app, *shadow);

  app.parse(argc, argv);

  if (*read) parsed.command = Command::Read;
  else if (*write) parsed.command = Command::Write;
  else if (*dump) parsed.command = Command::Dump;
  else if (*list) parsed.command = Command::List;
  else if (*lookup) parsed.command = Command::Lookup;
  else if (*show) parsed.command = Command::ShadowShow;
  else if (agentLine.given()) parsed.command = Command::Agent;
  else if (*shadow) throw ToolError::usage("shadow needs a command: show or diff (see tarnreg --help)");
  else throw ToolError::usage(
      "no command given: read, write, dump, list, lookup, shadow, field, reg or agent (see tarnreg --help)");
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
    case Command::Agent: return "agent";
  }
  return "?";
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
  if (parsed.command == Command::ShadowShow) {
    if (!raw.map.empty() || options.transport.kind != TransportKind::None)
      throw ToolError::usage("shadow show reads shared memory only: it takes no --map and no transport");
    if (raw.shadowRoot.empty()) throw ToolError::usage("--root needs a directory");
    options.shadowRoot = raw.shadowRoot;
    options.shadowPath = raw.shadowPath;
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
  Commands:
    read      print the register's value
    write     write VALUE to the register (prints nothing)
    dump      read every register of MAP, sorted by address
    list      print every register of MAP (address, name, type, width, access);
              sorted by address, no device is touched
    lookup    print the name of the register at ADDRESS; no device is touched
    shadow show  print the entries of a shadow-field table (address, start, size,
              value) sorted by key, reading it alongside the process that writes it
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
                 list and shadow show
    -f, --force  also write read-only registers and values wider than the register
    -v           trace to stderr (levels 0-5; -vv: every level)
    -h, --help   print this text
  Exit status: 0 success; 1 failure (map, device, unknown register, I/O error);
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
