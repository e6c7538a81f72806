// The transport entity: configuration through the transport registry, the name service,
// and the failure path that turns I/O errors into results, traces, the last failure and
// notifications.
#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/SigbusGuard.h"
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/MockTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace TarnRegFile;
using Hardware::TarnRegFile::HardwareRegisterFile;
using Lines = std::vector<std::string>;

std::string const kDemoCsv = TARN_SOURCE_DIR "/examples/maps/demo_chip.csv";
std::string const kNoImpl = "TransportMethod implementation does not exist";
std::string const kNotified = "0 handleExceptionGeneric: TransportMethod exception caught, Notifying agent: chip0";

template <class F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (std::runtime_error const& e) {
    return e.what();
  }
  return "(no exception)";
}

// What @p cap caught, one "level function: text" a line.
Lines traced(Kiv::TraceCapture const& cap) {
  Lines lines;
  for (auto const& r : cap.records()) lines.push_back(std::to_string(r.level) + " " + r.function + ": " + r.text);
  return lines;
}

Kiv::Ptr<HardwareRegisterFile> smallModel() {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("small");
  model->registerIs({"ctrl", Hardware::TarnRegFile::HardwareRegisterType::ctl, true, 0x10, 32, 32});
  return model;
}

// A bus backend over a one-register model whose accesses fail on demand.
class FakeImpl : public BusTransport<FakeImpl> {
public:
  enum class Fail { none, runtime, system, sigbus, other };
  explicit FakeImpl(int* destroyed = nullptr) : BusTransport(nullptr, 4, smallModel()), destroyed_(destroyed) {}
  ~FakeImpl() override {
    if (destroyed_) ++*destroyed_;
  }

  Fail mode = Fail::none;
  uint32_t lastWrite = 0;

  uint32_t busRead(HardwareRegister const& reg) {
    fail(reg, TransportOperation::Read);
    return 0x1234;
  }
  void busWrite(HardwareRegister const& reg, uint32_t value) {
    lastWrite = value;
    fail(reg, TransportOperation::Write);
  }

private:
  void fail(HardwareRegister const& reg, TransportOperation op) const {
    std::string const text = "bus timeout on " + reg.name.str();
    if (mode == Fail::runtime) throw std::runtime_error(text);
    if (mode == Fail::system) throw TransportError(text, TransportErrorKind::System, reg.name.str(), op, EIO);
    if (mode == Fail::sigbus) throw Kiv::SigbusException();
    if (mode == Fail::other) throw std::logic_error("not an I/O failure");
  }
  int* destroyed_;
};

// Callbacks that record "name:status" (writes) and "name:status:value" (reads).
struct Calls : Lines {
  RegWriteCallback write() {
    return [this](char const* n, RegCallbackStatus s) { push_back(std::string(n) + ":" + std::to_string(s)); };
  }
  RegReadCallback read() {
    return [this](char const* n, RegCallbackStatus s, uint32_t v) {
      push_back(std::string(n) + ":" + std::to_string(s) + ":" + std::to_string(v));
    };
  }
};

struct ErrorWatcher : TransportMethodError::Notifiee {
  void onError() override { ++calls; }
  int calls = 0;
};

// A transport with a fake implementation failing in @p mode, and an observed error notifier.
struct Rig {
  explicit Rig(FakeImpl::Fail mode = FakeImpl::Fail::none) : tm(TransportMethod::TransportMethodIs("chip0")) {
    fake->mode = mode;
    tm->implPtrIs(fake);
    tm->errorNotifierIs("chip0");
    watcher.notifierIs(tm->errorNotifier());
  }
  Kiv::Ptr<TransportMethod> tm;
  FakeImpl* fake = new FakeImpl;
  ErrorWatcher watcher;
};

// ---------------------------------------------------------------- configuration

TEST(TransportMethod, FullInitWithMockDescriptorBuildsTheMockAndAFreshNotifier) {
  auto tm = transportMethodFactory("chip0");
  auto const descriptor = mockTransportDescriptorFactory();
  tm->fullInit(descriptor, TransportMethodRegFile(kDemoCsv));
  auto* mock = dynamic_cast<MockTransportMethodImpl*>(tm->implPtr());
  ASSERT_NE(mock, nullptr);
  EXPECT_EQ(mock->dumpPath(), "/tmp/MockTarnDebugReg.csv");
  // The descriptor names the dump file.
  auto other = transportMethodFactory("chip1");
  other->init(mockTransportDescriptorFactory("/nonexistent-dir/dump.csv"), kDemoCsv);
  EXPECT_EQ(dynamic_cast<MockTransportMethodImpl&>(*other->implPtr()).dumpPath(), "/nonexistent-dir/dump.csv");
  ASSERT_TRUE(tm->errorNotifier());
  EXPECT_EQ(tm->errorNotifier()->chipName(), "chip0");
  EXPECT_FALSE(tm->errorNotifier()->error());
  EXPECT_EQ(tm->regNameToAddr("scratch"), 8u);  // through the implementation's helper: CSV numbers times 4
  // An unknown name is the helper's runtime error: a failed read.
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(tm->regRead("no_such_register"), 0xFFFFFFFFu);
  EXPECT_TRUE(cap.contains(
      "TransportMethod error on register 'no_such_register': RegisterFile does not have register 'no_such_register'!",
      0));
  EXPECT_TRUE(tm->errorNotifier()->error());
  EXPECT_EQ(tm->errorNotifier()->lastFailure().kind, TransportErrorKind::UnknownRegister);

  auto const first = tm->errorNotifier();
  tm->init(descriptor, kDemoCsv);
  EXPECT_NE(tm->errorNotifier(), first);
}

TEST(TransportMethod, FullInitFailuresInTheirOrder) {
  auto tm = TransportMethod::TransportMethodIs("chip0");
  // No map source: refused before the descriptor is looked at, nothing stored.
  EXPECT_EQ(errorOf([&] { tm->fullInit(nullptr, TransportMethodRegFile()); }), "CSV and KIV Ptr cannot be both empty.");
  EXPECT_EQ(errorOf([&] { tm->fullInit(mockTransportDescriptorFactory(), {}); }),
            "CSV and KIV Ptr cannot be both empty.");
  EXPECT_FALSE(tm->descriptor());
  EXPECT_TRUE(tm->csvPath().empty());
  // Null descriptor: the sources are stored first.
  EXPECT_EQ(errorOf([&] { tm->init(nullptr, kDemoCsv); }), "TransportDescriptor is null!");
  EXPECT_EQ(tm->csvPath(), kDemoCsv);
  // A triple outside the table.
  auto const odd = i2cTransportDescriptorFactory(TransportFlavour::PciDov, "/dev/i2c-0", 0x50);
  EXPECT_EQ(errorOf([&] { tm->init(odd, kDemoCsv); }), "Unknown transport type 'i2c'");
  EXPECT_EQ(tm->descriptor(), odd);
  EXPECT_EQ(errorOf([&] { tm->init(Kiv::create<BaseTransportDescriptor>(TransportType::mock), kDemoCsv); }),
            "Unknown transport type 'mock'");
  // The implementation's construction errors pass through.
  EXPECT_EQ(errorOf([&] { tm->init(mockTransportDescriptorFactory(), "/nonexistent.csv"); }),
            "Error opening CSV file /nonexistent.csv");
  EXPECT_EQ(tm->implPtr(), nullptr);
  EXPECT_FALSE(tm->errorNotifier());
}

TEST(TransportMethod, NothingWorksBeforeAnImplementationExists) {
  auto tm = TransportMethod::TransportMethodIs("chip0");
  bool called = false;
  for (std::function<void()> const& use : std::vector<std::function<void()>>{
           [&] { tm->regRead("scratch"); }, [&] { tm->regWrite("scratch", 1); },
           [&] { tm->regReadWithCallback("scratch", [&](auto...) { called = true; }); },
           [&] { tm->regWriteWithCallback("scratch", 1, [&](auto...) { called = true; }); },
           [&] { tm->regNameToAddr("scratch"); }, [&] { tm->regAddrToName(0); }, [&] { tm->regList(); },
           [&] { tm->hasRegName("scratch"); }})
    EXPECT_EQ(errorOf(use), kNoImpl);
  EXPECT_FALSE(called);
}

// ---------------------------------------------------------------- the transport registry

// The asynchronous I2C row has no backend in this library, so these tests register a
// factory there that records what the row hands on.
void const* gHookDescriptor = nullptr;
TransportMethodRegFile gHookRegFile;
bool gHookReturnsNull = false;

BaseTransportMethodImpl* recordingVorm(BaseTransportDescriptor const& d, TransportMethodRegFile const& regFile) {
  gHookDescriptor = &d;
  gHookRegFile = regFile;
  return gHookReturnsNull ? nullptr : new FakeImpl;
}

// Registers a factory for the asynchronous I2C row for the scope.
struct VormHook {
  explicit VormHook(TransportMethod::TransportFactory fn)
      : previous(TransportMethod::transportFactoryIs(kI2cVormTransportKey, fn)) {}
  ~VormHook() { TransportMethod::transportFactoryIs(kI2cVormTransportKey, previous); }
  TransportMethod::TransportFactory previous;
};

TEST(TransportMethodTable, RowHandsItsDescriptorAndTheCsvPathOrElseTheModel) {
  VormHook const hook(recordingVorm);
  auto tm = TransportMethod::TransportMethodIs("chip0");
  auto const vorm = i2cVormTransportDescriptorFactory(nullptr, 0x22);
  // Both sources given: the CSV path goes on, the model does not.
  tm->fullInit(vorm, TransportMethodRegFile(kDemoCsv, smallModel()));
  EXPECT_EQ(gHookDescriptor, vorm.ptr());
  EXPECT_EQ(gHookRegFile, TransportMethodRegFile(kDemoCsv));
  auto const model = smallModel();
  tm->fullInit(vorm, TransportMethodRegFile("", model));
  EXPECT_EQ(gHookRegFile, TransportMethodRegFile("", model));
}

TEST(TransportMethodTable, MissingHookWrongDescriptorClassAndNullResultAreErrors) {
  auto tm = TransportMethod::TransportMethodIs("chip0");
  auto const vorm = i2cVormTransportDescriptorFactory(nullptr, 1);
  {
    VormHook const none(nullptr);
    EXPECT_EQ(errorOf([&] { tm->init(vorm, kDemoCsv); }),
              "transport implementation 'i2c/I2cVorm/I2cSmbusVorm' is not available in this build");
  }
  // A base descriptor built with "pci" carries the PCI triple but no access object.
  EXPECT_EQ(errorOf([&] { tm->init(Kiv::create<BaseTransportDescriptor>(TransportType::pci), kDemoCsv); }),
            "descriptor of transport 'pci/DirectAccess/PciDov' is a TarnRegFile::BaseTransportDescriptor, "
            "not a TarnRegFile::PciTransportDescriptor");
  EXPECT_EQ(tm->implPtr(), nullptr);

  tm->init(mockTransportDescriptorFactory(), kDemoCsv);
  auto const notifier = tm->errorNotifier();
  VormHook const hook(recordingVorm);
  gHookReturnsNull = true;
  EXPECT_EQ(errorOf([&] { tm->init(vorm, kDemoCsv); }), "TransportMethod implementation init failed");
  gHookReturnsNull = false;
  EXPECT_EQ(tm->implPtr(), nullptr);
  EXPECT_EQ(tm->errorNotifier(), notifier);  // the failed attempt made no new notifier
}

// ---------------------------------------------------------------- access and failures

TEST(TransportMethod, SuccessfulAccessesPassValuesThroughAlsoByName) {
  Rig rig;
  EXPECT_EQ(rig.tm->regRead("ctrl"), 0x1234u);
  rig.tm->regWrite("ctrl", 77);
  EXPECT_EQ(rig.fake->lastWrite, 77u);
  Calls calls;
  rig.tm->regReadWithCallback("ctrl", calls.read());
  rig.tm->regWriteWithCallback("ctrl", 5, calls.write());
  EXPECT_EQ(calls, (Lines{"ctrl:1:4660", "ctrl:1"}));
  EXPECT_EQ(rig.fake->lastWrite, 5u);
  // The runtime's generic interface publishes them by name.
  auto& registry = Kiv::TypeRegistry::instance();
  EXPECT_EQ(registry.call(*rig.tm, "regRead", {"ctrl"}), "4660");
  registry.call(*rig.tm, "regWrite", {"ctrl", "0x10"});
  EXPECT_EQ(rig.fake->lastWrite, 16u);
  EXPECT_EQ(registry.call(*rig.tm, "regNameToAddr", {"ctrl"}), "16");
  EXPECT_EQ(rig.watcher.calls, 0);
}

TEST(TransportMethod, IoFailureBecomesAllOnesItsTraceTheLastFailureAndANotificationEveryTime) {
  struct Case {
    FakeImpl::Fail mode;
    char const* line;
    TransportErrorKind kind;
    int errnum;
  };
  for (auto const& c : {Case{FakeImpl::Fail::runtime, "TransportMethod error on register 'ctrl': bus timeout on ctrl",
                             TransportErrorKind::Other, 0},
                        Case{FakeImpl::Fail::system, "TransportMethod error on register 'ctrl': bus timeout on ctrl",
                             TransportErrorKind::System, EIO},
                        Case{FakeImpl::Fail::sigbus, "Got SIGBUS when performing operation on register 'ctrl'",
                             TransportErrorKind::BusError, 0}}) {
    Rig rig(c.mode);
    Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
    EXPECT_EQ(rig.tm->regRead("ctrl"), 0xFFFFFFFFu);
    auto const& last = rig.tm->errorNotifier()->lastFailure();
    EXPECT_EQ(last.operation, TransportOperation::Read);
    rig.tm->regWrite("ctrl", 1);  // already latched: still a notification
    std::string const failed = std::string("0 tryPerformIO: ") + c.line;
    EXPECT_EQ(traced(cap), (Lines{failed, kNotified, failed, kNotified}));
    EXPECT_EQ(rig.watcher.calls, 2);
    EXPECT_TRUE(rig.tm->errorNotifier()->error());
    EXPECT_EQ(last.regName, "ctrl");
    EXPECT_EQ(last.operation, TransportOperation::Write);
    EXPECT_EQ(last.kind, c.kind);
    EXPECT_EQ(last.errnum, c.errnum);
  }
}

TEST(TransportMethod, OtherExceptionsPropagateWithoutNotification) {
  Rig rig(FakeImpl::Fail::other);
  EXPECT_THROW(rig.tm->regRead("ctrl"), std::logic_error);
  EXPECT_THROW(rig.tm->regWrite("ctrl", 1), std::logic_error);
  EXPECT_THROW(rig.tm->regWriteWithCallback("ctrl", 1, nullptr), std::logic_error);
  EXPECT_EQ(rig.watcher.calls, 0);
}

TEST(TransportMethod, FailedCallbackAccessCallsBackOnceWithStatusTwoAndNoTraceEvenWithoutCallback) {
  for (auto mode : {FakeImpl::Fail::runtime, FakeImpl::Fail::sigbus}) {
    Rig rig(mode);
    Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
    Calls calls;
    rig.tm->regWriteWithCallback("ctrl", 9, calls.write());
    rig.tm->regReadWithCallback("ctrl", calls.read());
    EXPECT_EQ(calls, (Lines{"ctrl:2", "ctrl:2:4294967295"}));
    EXPECT_EQ(rig.watcher.calls, 2);
    EXPECT_EQ(traced(cap), (Lines{kNotified, kNotified}));
    EXPECT_EQ(rig.tm->errorNotifier()->lastFailure().operation, TransportOperation::Read);
    // Without a callback the write is still made, and still signalled.
    rig.tm->regWriteWithCallback("ctrl", 4, nullptr);
    EXPECT_EQ(rig.fake->lastWrite, 4u);
    EXPECT_EQ(rig.watcher.calls, 3);
  }
}

TEST(TransportMethod, NotifierMayBeAbsentOrDroppedByItsObserver) {
  Rig rig(FakeImpl::Fail::runtime);
  struct Dropper : TransportMethodError::Notifiee {
    void onError() override { tm->errorNotifierDel(); }
    TransportMethod* tm = nullptr;
  } dropper;
  dropper.tm = rig.tm.ptr();
  dropper.notifierIs(rig.tm->errorNotifier());
  rig.watcher.notifierIs(nullptr);
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(rig.tm->regRead("ctrl"), 0xFFFFFFFFu);
  EXPECT_FALSE(rig.tm->errorNotifier());
  EXPECT_EQ(rig.tm->regRead("ctrl"), 0xFFFFFFFFu);  // without a notifier, only traced
  EXPECT_EQ(cap.count("Notifying agent: chip0"), 2u);
}

TEST(TransportMethod, ImplementationLivesUntilDeletion) {
  int destroyed = 0;
  {
    auto tm = TransportMethod::TransportMethodIs("chip0");
    tm->implPtrIs(new FakeImpl(&destroyed));
    tm->implPtrIs(new FakeImpl(&destroyed));  // the first is kept, not destroyed
    EXPECT_EQ(destroyed, 0);
    tm->handleDeletion();
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(errorOf([&] { tm->regRead("ctrl"); }), kNoImpl);
    tm->implPtrIs(new FakeImpl(&destroyed));
  }
  EXPECT_EQ(destroyed, 3);  // the destructor ran handleDeletion
}

// ---------------------------------------------------------------- value type and notifier

TEST(TransportMethodRegFile, ComparesTextFormAndParsesBack) {
  auto const model = smallModel();
  TransportMethodRegFile const a("/maps/x.csv");
  EXPECT_EQ(a, TransportMethodRegFile("/maps/x.csv", nullptr));
  EXPECT_FALSE(a == TransportMethodRegFile("/maps/x.csv", model) || a == TransportMethodRegFile("/maps/y.csv"));
  EXPECT_EQ(a.valueToStrep(),
            "Value('TarnRegFile::TransportMethodRegFile', ** {'csvPath': '/maps/x.csv', 'regFileModel': None})");
  EXPECT_EQ(Kiv::fromText<TransportMethodRegFile>(a.valueToStrep()), a);
  TransportMethodRegFile const withModel("", model);
  EXPECT_EQ(withModel.valueToStrep(),
            "Value('TarnRegFile::TransportMethodRegFile', ** {'csvPath': '', "
            "'regFileModel': <Hardware::TarnRegFile::HardwareRegisterFile 'small'>})");
  // A live model cannot be made from text.
  EXPECT_THROW(Kiv::fromText<TransportMethodRegFile>(withModel.valueToStrep()), Kiv::ParseException);
  EXPECT_THROW(Kiv::fromText<TransportMethodRegFile>("Value('Other', ** {})"), Kiv::ParseException);
}

TEST(TransportMethodError, NotifiesChangesAndEverySignalAlsoThroughTheGenericInterface) {
  auto& registry = Kiv::TypeRegistry::instance();
  auto const notifier = Kiv::ptr_cast<TransportMethodError>(registry.create("TarnRegFile::TransportMethodError", "chip9"));
  ASSERT_TRUE(notifier);
  ErrorWatcher watcher;
  watcher.notifierIs(notifier);
  EXPECT_EQ(registry.attribute(*notifier, "chipName") + registry.attribute(*notifier, "error"), "chip9False");
  registry.attributeIs(*notifier, "error", "true");
  notifier->errorIs(true);  // no change: no notification
  EXPECT_EQ(watcher.calls, 1);
  registry.attributeIs(*notifier, "error", "False");
  EXPECT_FALSE(notifier->error());
  EXPECT_EQ(watcher.calls, 2);
  EXPECT_THROW(registry.attributeIs(*notifier, "error", "maybe"), std::runtime_error);
}

}  // namespace
