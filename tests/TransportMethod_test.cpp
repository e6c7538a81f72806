// The transport entity: configuration through the transport registry, the name service,
// and the failure path that turns I/O errors into results, traces, the last failure and
// notifications; the transport descriptors.
#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/TransportMethod.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <functional>
#include <tuple>

namespace {

using namespace TarnRegFile;
using Hardware::TarnRegFile::HardwareRegisterFile;
using ::testing::ThrowsMessage;
using Lines = std::vector<std::string>;

Kiv::String const kDemoCsv = TARN_SOURCE_DIR "/examples/maps/demo_chip.csv";
std::string const kNoSource = "CSV and KIV Ptr cannot be both empty.";
std::string const kNotified = "0 handleExceptionGeneric: TransportMethod exception caught, Notifying agent: chip0";

Kiv::Ptr<HardwareRegisterFile> smallModel() {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("small");
  model->registerIs({"ctrl", Hardware::TarnRegFile::HardwareRegisterType::ctl, true, 0x10, 32, 32});
  return model;
}

// A bus backend over a one-register model whose accesses throw `failure` when it is set.
class FakeImpl : public BusTransport<FakeImpl> {
public:
  FakeImpl() : BusTransport(nullptr, 4, smallModel()) {}
  ~FakeImpl() override { ++destroyed; }
  uint32_t busRead(HardwareRegister const&) {
    if (failure) std::rethrow_exception(failure);
    return 0x1234;
  }
  void busWrite(HardwareRegister const&, uint32_t value) {
    writes.push_back(value);
    if (failure) std::rethrow_exception(failure);
  }
  std::exception_ptr failure;
  std::vector<uint32_t> writes;
  static inline int destroyed = 0;
};

// A transport over a FakeImpl failing with @p failure; it counts the signals of the error
// notifier and records what its callbacks are called with.
struct Rig : TransportMethodError::Notifiee {
  explicit Rig(std::exception_ptr failure = nullptr) : tm(TransportMethod::TransportMethodIs("chip0")) {
    fake->failure = failure;
    tm->implPtrIs(fake);
    tm->errorNotifierIs("chip0");
    notifierIs(tm->errorNotifier());
  }
  void onError() override { ++signals; }
  Kiv::Ptr<TransportMethod> tm;
  FakeImpl* fake = new FakeImpl;
  int signals = 0;
  Lines calls;  // "name:status" of writes, "name:status:value" of reads
  RegWriteCallback const onWrite = [this](char const* n, RegCallbackStatus s) {
    calls.push_back(std::string(n) + ":" + std::to_string(s));
  };
  RegReadCallback const onRead = [this](char const* n, RegCallbackStatus s, uint32_t v) {
    calls.push_back(std::string(n) + ":" + std::to_string(s) + ":" + std::to_string(v));
  };
};

// ---------------------------------------------------------------- configuration

// Puts @p factory in the asynchronous I2C row for the scope; `record` notes what the row
// hands on.
struct VormHook {
  static inline void const* descriptor = nullptr;
  static inline TransportMethodRegFile regFile;
  static BaseTransportMethodImpl* record(BaseTransportDescriptor const& d, TransportMethodRegFile const& r) {
    descriptor = &d;
    regFile = r;
    return new FakeImpl;
  }
  explicit VormHook(TransportMethod::TransportFactory factory)
      : previous(TransportMethod::transportFactoryIs(kI2cVormTransportKey, factory)) {}
  ~VormHook() { TransportMethod::transportFactoryIs(kI2cVormTransportKey, previous); }
  TransportMethod::TransportFactory previous;
};

// Each failure in its turn: what was checked before it is stored, nothing after it.
TEST(TransportMethod, FullInitFailuresInTheirOrder) {
  VormHook const none(nullptr);
  using Case = std::tuple<Kiv::Ptr<BaseTransportDescriptor>, TransportMethodRegFile, std::string>;
  for (auto const& [descriptor, source, error] : {
           Case{nullptr, {}, kNoSource},
           Case{nullptr, kDemoCsv, "TransportDescriptor is null!"},
           Case{i2cTransportDescriptorFactory(TransportFlavour::PciDov, "/dev/i2c-0", 0x50), kDemoCsv,
                "Unknown transport type 'i2c'"},
           Case{i2cVormTransportDescriptorFactory(nullptr, 0x22), kDemoCsv,
                "transport implementation 'i2c/I2cVorm/I2cSmbusVorm' is not available in this build"},
           Case{Kiv::create<BaseTransportDescriptor>(TransportType::pci), kDemoCsv,
                "descriptor of transport 'pci/DirectAccess/PciDov' is a TarnRegFile::BaseTransportDescriptor, "
                "not a TarnRegFile::PciTransportDescriptor"}}) {
    auto tm = TransportMethod::TransportMethodIs("chip0");
    EXPECT_THAT([&] { tm->fullInit(descriptor, source); }, ThrowsMessage<std::runtime_error>(error));
    bool const stored = error != kNoSource;
    EXPECT_EQ(tm->csvPath(), stored ? source.csvPath() : "") << error;
    EXPECT_EQ(tm->descriptor(), stored ? descriptor : nullptr) << error;
    EXPECT_EQ(tm->implPtr(), nullptr);
    EXPECT_FALSE(tm->errorNotifier());
  }
}

// A row builds from the descriptor and the CSV path (from the model alone: the PCI and
// asynchronous I2C tests); each configuration makes a new notifier.
TEST(TransportMethod, ARowBuildsFromItsDescriptorAndTheCsvPathBeforeTheModelWithAFreshNotifier) {
  auto tm = transportMethodFactory("chip0");
  tm->init(mockTransportDescriptorFactory(), kDemoCsv);
  auto const first = tm->errorNotifier();
  ASSERT_TRUE(first);
  VormHook const hook(VormHook::record);
  auto const vorm = i2cVormTransportDescriptorFactory(nullptr, 0x22);
  auto const model = smallModel();
  tm->fullInit(vorm, TransportMethodRegFile(kDemoCsv, model));
  EXPECT_NE(tm->errorNotifier(), first);
  EXPECT_EQ(VormHook::descriptor, vorm.ptr());
  EXPECT_EQ(VormHook::regFile, TransportMethodRegFile(kDemoCsv));
}

TEST(TransportMethod, ImplementationsLiveUntilDeletionAndNothingWorksWithoutOne) {
  int const before = FakeImpl::destroyed;
  {
    auto tm = TransportMethod::TransportMethodIs("chip0");
    tm->implPtrIs(new FakeImpl);
    tm->implPtrIs(new FakeImpl);  // the first is kept, not destroyed
    EXPECT_EQ(FakeImpl::destroyed, before);
    tm->handleDeletion();
    EXPECT_EQ(FakeImpl::destroyed, before + 2);
    bool called = false;
    auto const never = [&](auto...) { called = true; };
    // One check serves every entry point; an access and a lookup stand for them.
    for (std::function<void()> const& use : std::vector<std::function<void()>>{
             [&] { tm->regRead("ctrl"); }, [&] { tm->regWriteWithCallback("ctrl", 1, never); },
             [&] { tm->hasRegName("ctrl"); }})
      EXPECT_THAT(use, ThrowsMessage<std::runtime_error>("TransportMethod implementation does not exist"));
    EXPECT_FALSE(called);
    tm->implPtrIs(new FakeImpl);
  }
  EXPECT_EQ(FakeImpl::destroyed, before + 3);  // the destructor ran handleDeletion
}

// ---------------------------------------------------------------- access and failures

TEST(TransportMethod, AccessesPassThroughAlsoByNameAndTheNotifierSignalsChanges) {
  Rig rig;
  EXPECT_EQ(rig.tm->regRead("ctrl"), 0x1234u);
  rig.tm->regWrite("ctrl", 77);
  rig.tm->regReadWithCallback("ctrl", rig.onRead);
  rig.tm->regWriteWithCallback("ctrl", 5, rig.onWrite);
  EXPECT_EQ(rig.calls, (Lines{"ctrl:1:4660", "ctrl:1"}));
  // The runtime's generic interface publishes the accesses and the notifier by name.
  auto& registry = Kiv::TypeRegistry::instance();
  EXPECT_EQ(registry.call(*rig.tm, "regRead", {"ctrl"}), "4660");
  registry.call(*rig.tm, "regWrite", {"ctrl", "0x10"});
  EXPECT_EQ(rig.fake->writes, (std::vector<uint32_t>{77, 5, 16}));
  auto& notifier = *rig.tm->errorNotifier();
  EXPECT_EQ(registry.attribute(notifier, "chipName") + registry.attribute(notifier, "error"), "chip0False");
  registry.attributeIs(notifier, "error", "true");
  notifier.errorIs(true);  // no change: no notification
  EXPECT_EQ(rig.signals, 1);
  // Exceptions that are not I/O failures propagate, without a notification.
  rig.fake->failure = std::make_exception_ptr(std::logic_error("not an I/O failure"));
  EXPECT_THROW(rig.tm->regWriteWithCallback("ctrl", 1, nullptr), std::logic_error);
  EXPECT_EQ(rig.signals, 1);
}

// Plain forms trace the failure; callback forms call back once with status 2 (a read with
// 0xFFFFFFFF) and trace nothing more. Every failure is signalled, latched or not. (A bus
// error's text and kind: the PCI transport's and tarnreg's tests.)
TEST(TransportMethod, IoFailureBecomesAFailedResultItsTraceTheLastFailureAndASignalEachTime) {
  std::string const timeout = "TransportMethod error on register 'ctrl': bus timeout on ctrl";
  auto const fail = [](auto e) { return std::make_exception_ptr(e); };
  using Case = std::tuple<std::exception_ptr, std::string, std::string, TransportErrorKind>;
  for (auto const& [failure, reg, line, kind] : {
           Case{fail(std::runtime_error("bus timeout on ctrl")), "ctrl", timeout, TransportErrorKind::Other},
           Case{nullptr, "nope",
                "TransportMethod error on register 'nope': RegisterFile does not have register 'nope'!",
                TransportErrorKind::UnknownRegister}}) {
    SCOPED_TRACE(line);
    Rig rig(failure);
    Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
    auto const& last = rig.tm->errorNotifier()->lastFailure();
    EXPECT_EQ(rig.tm->regRead(reg), 0xFFFFFFFFu);
    rig.tm->regWrite(reg, 1);
    rig.tm->regWriteWithCallback(reg, 5, rig.onWrite);
    rig.tm->regReadWithCallback(reg, rig.onRead);
    rig.tm->regWriteWithCallback(reg, 4, nullptr);  // made, and signalled, without a callback too
    EXPECT_EQ(rig.fake->writes, (reg == "ctrl" ? std::vector<uint32_t>{1, 5, 4} : std::vector<uint32_t>{}));
    EXPECT_EQ(rig.calls, (Lines{reg + ":2", reg + ":2:4294967295"}));
    Lines traced;
    for (auto const& r : cap.records()) traced.push_back(std::to_string(r.level) + " " + r.function + ": " + r.text);
    std::string const failed = "0 tryPerformIO: " + line;
    EXPECT_EQ(traced, (Lines{failed, kNotified, failed, kNotified, kNotified, kNotified, kNotified}));
    EXPECT_EQ(rig.signals, 5);
    EXPECT_TRUE(rig.tm->errorNotifier()->error());
    EXPECT_EQ(last.regName, reg);
    EXPECT_EQ(last.operation, TransportOperation::Write);
    EXPECT_EQ(last.kind, kind);
  }
}

TEST(TransportMethod, NotifierMayBeAbsentOrDroppedByItsObserver) {
  Rig rig(std::make_exception_ptr(std::runtime_error("bus timeout")));
  struct Dropper : TransportMethodError::Notifiee {
    void onError() override { tm->errorNotifierDel(); }
    TransportMethod* tm = nullptr;
  } dropper;
  dropper.tm = rig.tm.ptr();
  dropper.notifierIs(rig.tm->errorNotifier());
  rig.notifierIs(nullptr);
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(rig.tm->regRead("ctrl"), 0xFFFFFFFFu);
  EXPECT_FALSE(rig.tm->errorNotifier());
  EXPECT_EQ(rig.tm->regRead("ctrl"), 0xFFFFFFFFu);  // without a notifier, only traced
  EXPECT_EQ(cap.count("Notifying agent: chip0"), 2u);
}

// ---------------------------------------------------------------- descriptors

// Each kind of descriptor, built by type name with text arguments as the generic interface
// does, fixes its triple and keeps its arguments; bad arguments are refused.
TEST(TransportDescriptor, GenericConstructionTriplesAndAttributes) {
  auto& registry = Kiv::TypeRegistry::instance();
  using Attributes = std::vector<std::pair<char const*, char const*>>;
  using Case = std::tuple<std::string, std::vector<std::string>, std::string, Attributes>;  // no triple: refused
  for (auto const& [type, args, triple, attributes] : {
           Case{"I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "0x50"},
                "i2c/I2cSmbusIoctl/I2cSmbusDataBlock", {{"devNode", "/dev/i2c-0"}, {"devId", "80"}}},
           Case{"I2cVormTransportDescriptor", {"None", "7"}, "i2c/I2cVorm/I2cSmbusVorm",
                {{"devId", "7"}, {"vorm", "None"}}},
           Case{"PciTransportDescriptor", {"None"}, "pci/DirectAccess/PciDov", {{"pciDov", "None"}}},
           Case{"MockTransportDescriptor", {}, "mock/mockProtocol/mockFlavour",
                {{"dumpPath", "/tmp/MockTarnDebugReg.csv"}}},
           Case{"I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "fifty"}, "", {}},
           Case{"I2cTransportDescriptor", {"i2cSmbusDataBlock", "/dev/i2c-0", "0x50"}, "", {}},  // literals are exact
           Case{"PciTransportDescriptor", {"../../etc/passwd", "0"}, "", {}}}) {  // refused before anything is opened
    SCOPED_TRACE(fmt::format("{} with {} args", type, args.size()));
    if (triple.empty()) {
      EXPECT_THROW(registry.construct("TarnRegFile::" + type, args), std::runtime_error);
      continue;
    }
    auto const d = Kiv::ptr_cast<BaseTransportDescriptor>(registry.construct("TarnRegFile::" + type, args));
    ASSERT_TRUE(d);
    EXPECT_EQ(registry.attribute(*d, "type") + "/" + registry.attribute(*d, "protocol") + "/" +
                  registry.attribute(*d, "flavour"),
              triple);
    for (auto [attribute, text] : attributes) EXPECT_EQ(registry.attribute(*d, attribute), text) << attribute;
  }
}

}  // namespace
