// The transport entity: configuration through the transport registry, the name service,
// and the failure path that turns I/O errors into results, traces, the last failure and
// notifications; the transport descriptors and their enumerations.
#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/SigbusGuard.h"
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/MockTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <cerrno>
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

// Puts @p factory in the asynchronous I2C row for the scope. That row has no backend in
// this library; `record` notes what the row hands on.
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
           Case{mockTransportDescriptorFactory(), {}, kNoSource},
           Case{nullptr, kDemoCsv, "TransportDescriptor is null!"},
           Case{i2cTransportDescriptorFactory(TransportFlavour::PciDov, "/dev/i2c-0", 0x50), kDemoCsv,
                "Unknown transport type 'i2c'"},
           Case{Kiv::create<BaseTransportDescriptor>(TransportType::mock), kDemoCsv, "Unknown transport type 'mock'"},
           Case{i2cVormTransportDescriptorFactory(nullptr, 0x22), kDemoCsv,
                "transport implementation 'i2c/I2cVorm/I2cSmbusVorm' is not available in this build"},
           Case{Kiv::create<BaseTransportDescriptor>(TransportType::pci), kDemoCsv,
                "descriptor of transport 'pci/DirectAccess/PciDov' is a TarnRegFile::BaseTransportDescriptor, "
                "not a TarnRegFile::PciTransportDescriptor"},
           Case{mockTransportDescriptorFactory(), Kiv::String("/nonexistent.csv"),
                "Error opening CSV file /nonexistent.csv"}}) {
    auto tm = TransportMethod::TransportMethodIs("chip0");
    EXPECT_THAT([&] { tm->fullInit(descriptor, source); }, ThrowsMessage<std::runtime_error>(error));
    bool const stored = error != kNoSource;
    EXPECT_EQ(tm->csvPath(), stored ? source.csvPath() : "") << error;
    EXPECT_EQ(tm->descriptor(), stored ? descriptor : nullptr) << error;
    EXPECT_EQ(tm->implPtr(), nullptr);
    EXPECT_FALSE(tm->errorNotifier());
  }
}

// A row builds from the descriptor (the mock's names its dump file) and the CSV path, else
// the model; each configuration makes a new notifier, except one that builds nothing.
TEST(TransportMethod, ARowBuildsFromItsDescriptorAndTheCsvPathElseTheModelWithAFreshNotifier) {
  auto tm = transportMethodFactory("chip0");
  tm->init(mockTransportDescriptorFactory("/nonexistent-dir/dump.csv"), kDemoCsv);
  EXPECT_EQ(dynamic_cast<MockTransportMethodImpl&>(*tm->implPtr()).dumpPath(), "/nonexistent-dir/dump.csv");
  auto const first = tm->errorNotifier();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->chipName(), "chip0");
  EXPECT_FALSE(first->error());
  VormHook const hook(VormHook::record);
  auto const vorm = i2cVormTransportDescriptorFactory(nullptr, 0x22);
  auto const model = smallModel();
  tm->fullInit(vorm, TransportMethodRegFile(kDemoCsv, model));
  EXPECT_NE(tm->errorNotifier(), first);
  EXPECT_EQ(VormHook::descriptor, vorm.ptr());
  EXPECT_EQ(VormHook::regFile, TransportMethodRegFile(kDemoCsv));
  tm->fullInit(vorm, TransportMethodRegFile("", model));
  EXPECT_EQ(VormHook::regFile, TransportMethodRegFile("", model));
  auto const notifier = tm->errorNotifier();
  VormHook const nothing([](BaseTransportDescriptor const&, TransportMethodRegFile const&) {
    return static_cast<BaseTransportMethodImpl*>(nullptr);
  });
  EXPECT_THAT([&] { tm->init(vorm, kDemoCsv); },
              ThrowsMessage<std::runtime_error>("TransportMethod implementation init failed"));
  EXPECT_EQ(tm->implPtr(), nullptr);
  EXPECT_EQ(tm->errorNotifier(), notifier);
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
    for (std::function<void()> const& use : std::vector<std::function<void()>>{
             [&] { tm->regRead("ctrl"); }, [&] { tm->regWrite("ctrl", 1); },
             [&] { tm->regReadWithCallback("ctrl", never); }, [&] { tm->regWriteWithCallback("ctrl", 1, never); },
             [&] { tm->regNameToAddr("ctrl"); }, [&] { tm->regAddrToName(0); }, [&] { tm->regNameAt(0); },
             [&] { tm->regList(); }, [&] { tm->hasRegName("ctrl"); }})
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
  EXPECT_EQ(registry.call(*rig.tm, "regNameToAddr", {"ctrl"}), "16");
  EXPECT_EQ(rig.fake->writes, (std::vector<uint32_t>{77, 5, 16}));
  EXPECT_TRUE(Kiv::ptr_cast<TransportMethodError>(registry.create("TarnRegFile::TransportMethodError", "chip9")));
  auto& notifier = *rig.tm->errorNotifier();
  EXPECT_EQ(registry.attribute(notifier, "chipName") + registry.attribute(notifier, "error"), "chip0False");
  registry.attributeIs(notifier, "error", "true");
  notifier.errorIs(true);  // no change: no notification
  EXPECT_EQ(rig.signals, 1);
  registry.attributeIs(notifier, "error", "False");
  EXPECT_FALSE(notifier.error());
  EXPECT_THROW(registry.attributeIs(notifier, "error", "maybe"), std::runtime_error);
  // Exceptions that are not I/O failures propagate, without a notification.
  rig.fake->failure = std::make_exception_ptr(std::logic_error("not an I/O failure"));
  EXPECT_THROW(rig.tm->regRead("ctrl"), std::logic_error);
  EXPECT_THROW(rig.tm->regWriteWithCallback("ctrl", 1, nullptr), std::logic_error);
  EXPECT_EQ(rig.signals, 2);
}

// Plain forms trace the failure; callback forms call back once with status 2 (a read with
// 0xFFFFFFFF) and trace nothing more. Every failure is signalled, latched or not.
TEST(TransportMethod, IoFailureBecomesAFailedResultItsTraceTheLastFailureAndASignalEachTime) {
  std::string const timeout = "TransportMethod error on register 'ctrl': bus timeout on ctrl";
  auto const fail = [](auto e) { return std::make_exception_ptr(e); };
  using Case = std::tuple<std::exception_ptr, std::string, std::string, TransportErrorKind, int>;
  for (auto const& [failure, reg, line, kind, errnum] : {
           Case{fail(std::runtime_error("bus timeout on ctrl")), "ctrl", timeout, TransportErrorKind::Other, 0},
           Case{fail(TransportError("bus timeout on ctrl", TransportErrorKind::System, "ctrl", TransportOperation::Read,
                                    EIO)),
                "ctrl", timeout, TransportErrorKind::System, EIO},
           Case{fail(Kiv::SigbusException()), "ctrl", "Got SIGBUS when performing operation on register 'ctrl'",
                TransportErrorKind::BusError, 0},
           Case{fail(Kiv::RangeException("peripheral 0x80 out of range")), "ctrl",
                "TransportMethod error on register 'ctrl': peripheral 0x80 out of range",
                TransportErrorKind::OutOfRange, 0},
           Case{nullptr, "nope",
                "TransportMethod error on register 'nope': RegisterFile does not have register 'nope'!",
                TransportErrorKind::UnknownRegister, 0}}) {
    SCOPED_TRACE(line);
    Rig rig(failure);
    Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
    auto const& last = rig.tm->errorNotifier()->lastFailure();
    EXPECT_EQ(rig.tm->regRead(reg), 0xFFFFFFFFu);
    rig.tm->regWrite(reg, 1);
    rig.tm->regWriteWithCallback(reg, 5, rig.onWrite);
    rig.tm->regReadWithCallback(reg, rig.onRead);
    EXPECT_EQ(last.operation, TransportOperation::Read);
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
    EXPECT_EQ(last.errnum, errnum);
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

TEST(TransportMethodRegFile, ComparesTextFormAndParsesBackWithoutAModel) {
  TransportMethodRegFile const a("/maps/x.csv"), withModel("", smallModel());
  EXPECT_FALSE(a == TransportMethodRegFile("/maps/x.csv", withModel.regFileModel()) ||
               a == TransportMethodRegFile("/maps/y.csv"));
  EXPECT_EQ(a.valueToStrep(),
            "Value('TarnRegFile::TransportMethodRegFile', ** {'csvPath': '/maps/x.csv', 'regFileModel': None})");
  EXPECT_EQ(Kiv::fromText<TransportMethodRegFile>(a.valueToStrep()), a);
  EXPECT_EQ(withModel.valueToStrep(),
            "Value('TarnRegFile::TransportMethodRegFile', ** {'csvPath': '', "
            "'regFileModel': <Hardware::TarnRegFile::HardwareRegisterFile 'small'>})");
  // A live model cannot be made from text.
  EXPECT_THROW(Kiv::fromText<TransportMethodRegFile>(withModel.valueToStrep()), Kiv::ParseException);
  EXPECT_THROW(Kiv::fromText<TransportMethodRegFile>("Value('Other', ** {})"), Kiv::ParseException);
}

// ---------------------------------------------------------------- descriptors

// Every text route of one enumeration agrees with its literal table; a value past the table is refused.
template <class E>
void expectLiterals(std::vector<char const*> const& literals, E (*byValue)(unsigned), E (*byName)(Kiv::String const&)) {
  for (unsigned v = 0; v < literals.size(); ++v) {
    E const e = byValue(v);
    EXPECT_EQ(static_cast<unsigned>(e), v) << literals[v];
    EXPECT_EQ(byName(Kiv::String(literals[v])), e);
    EXPECT_EQ(fmt::format("{} {} {} {}", stringValue(e), valueToStrep(e), e, testing::PrintToString(e)),
              fmt::format("{0} '{0}' {0} {0}", literals[v]));
  }
  EXPECT_THROW(byValue(static_cast<unsigned>(literals.size())), Kiv::RangeException);
}

TEST(TransportDescriptorEnum, LiteralsValuesAndTextForms) {
  expectLiterals<TransportType>({"i2c", "pci", "mock"}, TransportTypeInstance, TransportTypeInstance);
  expectLiterals<TransportProtocol>({"DirectAccess", "I2cVorm", "I2cSmbusIoctl", "mockProtocol"},
                                    TransportProtocolInstance, TransportProtocolInstance);
  expectLiterals<TransportFlavour>({"PciDov", "I2cSmbusVorm", "I2cSmbusDataBlock", "I2cSmbusDataWord", "mockFlavour"},
                                   TransportFlavourInstance, TransportFlavourInstance);
  EXPECT_THROW(TransportFlavourInstance(Kiv::String("PciDOV")), Kiv::RangeException);
  // A value outside the table still formats, so an error text about it can be built.
  EXPECT_EQ(fmt::format("{}", TransportType{200}), "200");
  // The text parser reads one literal and stops after it.
  std::string const text = "'I2cSmbusIoctl', rest";
  Kiv::String::IteratorConst pos = text.data();
  TransportProtocol protocol{};
  sequenceToValue(pos, text.data() + text.size(), &protocol);
  EXPECT_EQ(protocol, TransportProtocol::I2cSmbusIoctl);
  EXPECT_EQ(std::string_view(pos), ", rest");
}

// Each kind of descriptor, built by type name with text arguments as the generic interface
// does, fixes its triple and keeps its arguments; bad arguments are refused.
TEST(TransportDescriptor, GenericConstructionTriplesAndAttributes) {
  auto& registry = Kiv::TypeRegistry::instance();
  using Attributes = std::vector<std::pair<char const*, char const*>>;
  using Case = std::tuple<std::string, std::vector<std::string>, std::string, Attributes>;  // no triple: refused
  for (auto const& [type, args, triple, attributes] : {
           Case{"I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "0x50"},
                "i2c/I2cSmbusIoctl/I2cSmbusDataBlock", {{"devNode", "/dev/i2c-0"}, {"devId", "80"}}},
           Case{"I2cTransportDescriptor", {"I2cSmbusDataWord", "/dev/i2c-3", "7"}, "i2c/I2cSmbusIoctl/I2cSmbusDataWord",
                {{"devNode", "/dev/i2c-3"}, {"devId", "7"}}},
           Case{"I2cVormTransportDescriptor", {"None", "7"}, "i2c/I2cVorm/I2cSmbusVorm",
                {{"devId", "7"}, {"vorm", "None"}}},
           Case{"PciTransportDescriptor", {"None"}, "pci/DirectAccess/PciDov", {{"pciDov", "None"}}},
           Case{"MockTransportDescriptor", {}, "mock/mockProtocol/mockFlavour",
                {{"dumpPath", "/tmp/MockTarnDebugReg.csv"}}},
           Case{"MockTransportDescriptor", {"/tmp/chip0.csv"}, "mock/mockProtocol/mockFlavour",
                {{"dumpPath", "/tmp/chip0.csv"}}},
           Case{"I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0"}, "", {}},
           Case{"I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "fifty"}, "", {}},
           Case{"I2cVormTransportDescriptor", {"someVorm", "1"}, "", {}},
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
