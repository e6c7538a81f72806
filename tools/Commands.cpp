#include "Commands.h"

#include "DeviceSession.h"
#include "TarnRegFile/platform/KivBits.h"
#include "Printer.h"
#include "RegisterMap.h"
#include "ShadowShow.h"
#include "ShadowWatch.h"
#include "StatusCommand.h"

#include <fmt/format.h>

#include <string>
#include <vector>

namespace Tarnreg {

namespace {

using TarnRegFile::RegisterRef;

// The chip is named after its map ("maps/demo_chip.csv" -> "demo_chip"); the name
// only appears in the transport's own trace lines.
std::string chipNameOf(std::string const& mapPath) {
  auto const slash = mapPath.rfind('/');
  std::string name = slash == std::string::npos ? mapPath : mapPath.substr(slash + 1);
  auto const dot = name.rfind('.');
  if (dot != std::string::npos && dot > 0) name.erase(dot);
  return name.empty() ? "chip" : name;
}

// A write the map says cannot be right is refused unless forced: writing a read-only
// register or bits the register does not have would otherwise seem to succeed.
void checkWrite(RegisterRef const& reg, U32 value, bool force) {
  if (force) return;
  if (!reg.writeable)
    throw ToolError::failure(fmt::format("register '{}' is read-only (--force writes it anyway)", reg.name));
  if (!Kiv::fitsWidth(value, reg.width))
    throw ToolError::failure(fmt::format("value {:#x} does not fit the {}-bit register '{}' (--force writes it anyway)",
                                         value, reg.width, reg.name));
}

class CommandRunner {
public:
  explicit CommandRunner(Options const& options) : options_(options), printer_(options.json) {}

  void run() {
    switch (options_.command) {
      case Command::Read: return read();
      case Command::Write: return write();
      case Command::Dump: return dump();
      case Command::List: return printer_.registers(map().byAddress());
      case Command::Lookup: return printer_.lookup(options_.address, map().nameAt(options_.address));
      case Command::ShadowShow:
        return printer_.shadowEntries(readShadowEntries(options_.shadowRoot, options_.shadowPath));
      case Command::ShadowWatch: return watchShadowTable(options_.shadowRoot, options_.shadowPath, printer_);
      case Command::Status: return runStatusCommand(options_, printer_);
      case Command::Agent: return runAgentCommand(options_.agent, options_.json);
    }
  }

private:
  RegisterMap map() const { return RegisterMap(options_.mapPath, addrBlockSize(options_.transport.kind)); }
  DeviceSession session(RegisterMap const& registers) const {
    return DeviceSession(options_.transport, registers, chipNameOf(options_.mapPath));
  }

  void read() {
    // The map is loaded and the name checked before any device is opened.
    RegisterMap const registers = map();
    RegisterRef const reg = registers.find(options_.regName);
    DeviceSession device = session(registers);
    printer_.registerValue({&reg, device.read(reg.name.data())});
  }

  void write() {
    RegisterMap const registers = map();
    RegisterRef const reg = registers.find(options_.regName);
    checkWrite(reg, options_.value, options_.force);
    DeviceSession device = session(registers);
    device.write(reg.name.data(), options_.value);
    printer_.written({&reg, options_.value});
  }

  // Every value is read before anything is printed, so that a failure leaves no
  // half table (or half JSON document) behind on standard output.
  void dump() {
    RegisterMap const registers = map();
    DeviceSession device = session(registers);
    std::vector<RegisterValue> values;
    values.reserve(registers.byAddress().size());
    for (auto const& reg : registers.byAddress()) values.push_back({&reg, device.read(reg.name.data())});
    printer_.registerValues(values);
  }

  Options const& options_;
  Printer printer_;
};

}  // namespace

void runCommand(Options const& options) { CommandRunner(options).run(); }

}  // namespace Tarnreg
