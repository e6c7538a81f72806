// The transport entity: configuration from the implementation table, the name service,
// and the failure path that turns I/O errors into results, traces and notifications.
#include "KivGeneric.h"
#include "SigbusGuard.h"
#include "Trace.h"

#include "TarnRegFile/MockTransportMethodImpl.h"
#include "TarnRegFile/TransportMethod.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace TarnRegFile;
using Hardware::TarnRegFile::HardwareRegister;
using Hardware::TarnRegFile::HardwareRegisterFile;
using Hardware::TarnRegFile::HardwareRegisterType;

std::string const kDemoCsv = TARN_SOURCE_DIR "/examples/maps/demo_chip.csv";

template <class F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (std::runtime_error const& e) {
    return e.what();
  }
  return "(no exception)";
}

Kiv::Ptr<HardwareRegisterFile> smallModel() {
  auto model = HardwareRegisterFile::HardwareRegisterFileIs("small");
  model->registerIs({"ctrl", HardwareRegisterType::ctl, true, 0x10, 32, 32});
  return model;
}

// An implementation whose accesses fail on demand.
class FakeImpl : public BaseTransportMethodImpl {
public:
  enum class Fail { none, runtime, sigbus, other };
  explicit FakeImpl(int* destroyed = nullptr) : BaseTransportMethodImpl(nullptr, 4, smallModel()), destroyed_(destroyed) {}
  ~FakeImpl() override {
    if (destroyed_) ++*destroyed_;
  }
  uint32_t regRead(char const* regName) override {
    ++reads;
    fail(regName);
    return 0x1234;
  }
  void regWrite(char const* regName, uint32_t value) override {
    ++writes;
    lastWrite = value;
    fail(regName);
  }

  Fail mode = Fail::none;
  int reads = 0;
  int writes = 0;
  uint32_t lastWrite = 0;

private:
  void fail(char const* regName) const {
    switch (mode) {
      case Fail::none:
        return;
      case Fail::runtime:
        throw std::runtime_error(std::string("bus timeout on ") + regName);
      case Fail::sigbus:
        throw Kiv::SigbusException();
      case Fail::other:
        throw std::logic_error("not an I/O failure");
    }
  }
  int* destroyed_;
};

struct ErrorWatcher : TransportMethodError::Notifiee {
  void onError() override { ++calls; }
  int calls = 0;
};

// A transport with a fake implementation and an error notifier with an observer.
struct Rig {
  Rig() : tm(TransportMethod::TransportMethodIs("chip0")), fake(new FakeImpl) {
    tm->implPtrIs(fake);
    tm->errorNotifierIs("chip0");
    watcher.notifierIs(tm->errorNotifier());
  }
  Kiv::Ptr<TransportMethod> tm;
  FakeImpl* fake;
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
  EXPECT_EQ(tm->csvPath(), kDemoCsv);
  EXPECT_EQ(tm->descriptor(), descriptor);
  ASSERT_TRUE(tm->errorNotifier());
  EXPECT_EQ(tm->errorNotifier()->chipName(), "chip0");
  EXPECT_FALSE(tm->errorNotifier()->error());

  // Name service through the implementation's helper (CSV numbers times 4).
  EXPECT_EQ(tm->regNameToAddr("scratch"), 8u);
  EXPECT_EQ(tm->regAddrToName(16), "global_control");
  EXPECT_TRUE(tm->hasRegName("watchdog_kick"));
  EXPECT_FALSE(tm->hasRegName("nope"));
  EXPECT_EQ(tm->regList()->registerNameCount(), 22u);
  EXPECT_EQ(errorOf([&] { tm->regAddrToName(3); }), "RegisterFile does not have address: 3!");

  // A second fullInit replaces the notifier.
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
  std::string const missing = "TransportMethod implementation does not exist";
  EXPECT_EQ(errorOf([&] { tm->regRead("scratch"); }), missing);
  EXPECT_EQ(errorOf([&] { tm->regWrite("scratch", 1); }), missing);
  EXPECT_EQ(errorOf([&] { tm->regReadWithCallback("scratch", [&](auto...) { called = true; }); }), missing);
  EXPECT_EQ(errorOf([&] { tm->regWriteWithCallback("scratch", 1, [&](auto...) { called = true; }); }), missing);
  EXPECT_EQ(errorOf([&] { tm->regNameToAddr("scratch"); }), missing);
  EXPECT_EQ(errorOf([&] { tm->regAddrToName(0); }), missing);
  EXPECT_EQ(errorOf([&] { tm->regList(); }), missing);
  EXPECT_EQ(errorOf([&] { tm->hasRegName("scratch"); }), missing);
  EXPECT_FALSE(called);
}

// ---------------------------------------------------------------- the implementation table

struct HookCall {
  std::string what;
  std::string csvPath;
  bool model = false;
  std::string devNode;
  int devId = 0;
  unsigned flavour = 0;
  void const* object = nullptr;
};
HookCall gLastHook;
int gHookDestroyed = 0;

BaseTransportMethodImpl* fakePci(Kiv::Ptr<Hardware::DovImpl> const& dov, char const* csv,
                                 Kiv::Ptr<HardwareRegisterFile> const& model) {
  gLastHook = {"pci", csv, static_cast<bool>(model), "", 0, 0, dov.ptr()};
  return new FakeImpl(&gHookDestroyed);
}
BaseTransportMethodImpl* fakeI2c(char const* devNode, int devId, char const* csv, U8 flavour,
                                 Kiv::Ptr<HardwareRegisterFile> const& model) {
  gLastHook = {"i2c", csv, static_cast<bool>(model), devNode, devId, flavour, nullptr};
  return new FakeImpl(&gHookDestroyed);
}
BaseTransportMethodImpl* fakeVorm(I2cVormTransportDescriptor const& d, char const* csv,
                                  Kiv::Ptr<HardwareRegisterFile> const& model) {
  gLastHook = {"vorm", csv, static_cast<bool>(model), "", static_cast<int>(d.devId()), 0, &d};
  return new FakeImpl(&gHookDestroyed);
}
BaseTransportMethodImpl* nullPci(Kiv::Ptr<Hardware::DovImpl> const&, char const*, Kiv::Ptr<HardwareRegisterFile> const&) {
  return nullptr;
}

// Installs the fakes and puts back whatever was registered before.
struct FakeHooks {
  FakeHooks()
      : pci(TransportMethod::pciImplementationIs(fakePci)),
        i2c(TransportMethod::i2cImplementationIs(fakeI2c)),
        vorm(TransportMethod::i2cVormImplementationIs(fakeVorm)) {}
  ~FakeHooks() {
    TransportMethod::pciImplementationIs(pci);
    TransportMethod::i2cImplementationIs(i2c);
    TransportMethod::i2cVormImplementationIs(vorm);
  }
  TransportMethod::PciImplementationFn pci;
  TransportMethod::I2cImplementationFn i2c;
  TransportMethod::I2cVormImplementationFn vorm;
};

TEST(TransportMethodTable, HasTheFiveRows) {
  auto const& table = TransportMethod::implementationTable();
  EXPECT_EQ(table.size(), 5u);
  using T = TransportType;
  using P = TransportProtocol;
  using F = TransportFlavour;
  for (TransportKey const key : {TransportKey{T::pci, P::DirectAccess, F::PciDov},
                                 TransportKey{T::i2c, P::I2cVorm, F::I2cSmbusVorm},
                                 TransportKey{T::i2c, P::I2cSmbusIoctl, F::I2cSmbusDataBlock},
                                 TransportKey{T::i2c, P::I2cSmbusIoctl, F::I2cSmbusDataWord},
                                 TransportKey{T::mock, P::mockProtocol, F::mockFlavour}})
    EXPECT_TRUE(table.contains(key)) << fmt::format("{}/{}/{}", key.type, key.protocol, key.flavour);
}

TEST(TransportMethodTable, RowsWithoutRegisteredImplementationRefuseClearly) {
  auto const pci = TransportMethod::pciImplementationIs(nullptr);
  auto const i2c = TransportMethod::i2cImplementationIs(nullptr);
  auto const vorm = TransportMethod::i2cVormImplementationIs(nullptr);
  auto tm = TransportMethod::TransportMethodIs("chip0");
  EXPECT_EQ(errorOf([&] { tm->init(pciTransportDescriptorFactory(nullptr), kDemoCsv); }),
            "transport implementation 'pci/DirectAccess/PciDov' is not available in this build");
  EXPECT_EQ(errorOf([&] {
              tm->init(i2cTransportDescriptorFactory(TransportFlavour::I2cSmbusDataWord, "/dev/i2c-0", 1), kDemoCsv);
            }),
            "transport implementation 'i2c/I2cSmbusIoctl/I2cSmbusDataWord' is not available in this build");
  EXPECT_EQ(errorOf([&] { tm->init(i2cVormTransportDescriptorFactory(nullptr, 1), kDemoCsv); }),
            "transport implementation 'i2c/I2cVorm/I2cSmbusVorm' is not available in this build");
  EXPECT_EQ(tm->implPtr(), nullptr);
  TransportMethod::pciImplementationIs(pci);
  TransportMethod::i2cImplementationIs(i2c);
  TransportMethod::i2cVormImplementationIs(vorm);
}

TEST(TransportMethodTable, RowsHandTheDescriptorsArgumentsToTheRegisteredHooks) {
  FakeHooks hooks;
  auto tm = TransportMethod::TransportMethodIs("chip0");
  auto const model = smallModel();

  auto const pci = pciTransportDescriptorFactory(nullptr);
  // Both sources given: the CSV path goes on, the model does not.
  tm->fullInit(pci, TransportMethodRegFile(kDemoCsv, model));
  EXPECT_EQ(gLastHook.what, "pci");
  EXPECT_EQ(gLastHook.csvPath, kDemoCsv);
  EXPECT_FALSE(gLastHook.model);
  EXPECT_EQ(gLastHook.object, nullptr);
  // Only the model: an empty path and the model.
  tm->fullInit(pci, TransportMethodRegFile("", model));
  EXPECT_EQ(gLastHook.csvPath, "");
  EXPECT_TRUE(gLastHook.model);

  tm->init(i2cTransportDescriptorFactory(TransportFlavour::I2cSmbusDataBlock, "/dev/i2c-7", 0x50), kDemoCsv);
  EXPECT_EQ(gLastHook.what, "i2c");
  EXPECT_EQ(gLastHook.devNode, "/dev/i2c-7");
  EXPECT_EQ(gLastHook.devId, 0x50);
  EXPECT_EQ(gLastHook.flavour, 1u);
  tm->init(i2cTransportDescriptorFactory(TransportFlavour::I2cSmbusDataWord, "/dev/i2c-7", 0x51), kDemoCsv);
  EXPECT_EQ(gLastHook.flavour, 2u);
  EXPECT_EQ(gLastHook.devId, 0x51);

  auto const vorm = i2cVormTransportDescriptorFactory(nullptr, 0x22);
  tm->init(vorm, kDemoCsv);
  EXPECT_EQ(gLastHook.what, "vorm");
  EXPECT_EQ(gLastHook.object, vorm.ptr());
  EXPECT_EQ(gLastHook.devId, 0x22);

  // Replaced implementations stay alive until handleDeletion.
  gHookDestroyed = 0;
  tm->handleDeletion();
  EXPECT_EQ(gHookDestroyed, 5);
  EXPECT_EQ(tm->implPtr(), nullptr);
}

TEST(TransportMethodTable, DescriptorOfTheWrongClassAndNullResultAreErrors) {
  FakeHooks hooks;
  auto tm = TransportMethod::TransportMethodIs("chip0");
  // A base descriptor built with "pci" carries the PCI triple but no access object.
  EXPECT_EQ(errorOf([&] { tm->init(Kiv::create<BaseTransportDescriptor>(TransportType::pci), kDemoCsv); }),
            "descriptor of transport 'pci/DirectAccess/PciDov' is a TarnRegFile::BaseTransportDescriptor, "
            "not a TarnRegFile::PciTransportDescriptor");

  tm->init(pciTransportDescriptorFactory(nullptr), kDemoCsv);
  auto const notifier = tm->errorNotifier();
  TransportMethod::pciImplementationIs(nullPci);
  EXPECT_EQ(errorOf([&] { tm->init(pciTransportDescriptorFactory(nullptr), kDemoCsv); }),
            "TransportMethod implementation init failed");
  EXPECT_EQ(tm->implPtr(), nullptr);
  EXPECT_EQ(tm->errorNotifier(), notifier);  // the failed attempt made no new notifier
}

// ---------------------------------------------------------------- access and failures

TEST(TransportMethod, SuccessfulAccessesPassValuesThrough) {
  Rig rig;
  EXPECT_EQ(rig.tm->regRead("ctrl"), 0x1234u);
  rig.tm->regWrite("ctrl", 77);
  EXPECT_EQ(rig.fake->lastWrite, 77u);
  std::vector<std::pair<int, uint32_t>> reads;
  rig.tm->regReadWithCallback("ctrl", [&](char const* n, RegCallbackStatus s, uint32_t v) {
    EXPECT_STREQ(n, "ctrl");
    reads.emplace_back(s, v);
  });
  EXPECT_EQ(reads, (std::vector<std::pair<int, uint32_t>>{{1, 0x1234u}}));
  int writeStatus = 0;
  rig.tm->regWriteWithCallback("ctrl", 5, [&](char const*, RegCallbackStatus s) { writeStatus = s; });
  EXPECT_EQ(writeStatus, 1);
  EXPECT_EQ(rig.watcher.calls, 0);
  EXPECT_FALSE(rig.tm->errorNotifier()->error());
}

TEST(TransportMethod, RuntimeErrorBecomesAllOnesTraceAndNotificationEveryTime) {
  Rig rig;
  rig.fake->mode = FakeImpl::Fail::runtime;
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(rig.tm->regRead("ctrl"), 0xFFFFFFFFu);
  EXPECT_TRUE(cap.contains("TransportMethod error on register 'ctrl': bus timeout on ctrl", 0));
  EXPECT_TRUE(cap.contains("TransportMethod exception caught, Notifying agent: chip0", 0));
  EXPECT_EQ(rig.watcher.calls, 1);
  EXPECT_TRUE(rig.tm->errorNotifier()->error());

  rig.tm->regWrite("ctrl", 1);  // already latched: still a notification
  EXPECT_EQ(rig.watcher.calls, 2);
  EXPECT_EQ(cap.count("TransportMethod exception caught"), 2u);

  bool sawFunction = false;
  for (auto const& r : cap.records())
    if (r.text.find("Notifying agent") != std::string::npos)
      sawFunction = sawFunction || r.function == "handleExceptionGeneric";
  EXPECT_TRUE(sawFunction);
}

TEST(TransportMethod, SigbusBecomesAllOnesAndItsOwnTrace) {
  Rig rig;
  rig.fake->mode = FakeImpl::Fail::sigbus;
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(rig.tm->regRead("ctrl"), 0xFFFFFFFFu);
  rig.tm->regWrite("ctrl", 3);
  EXPECT_EQ(cap.count("Got SIGBUS when performing operation on register 'ctrl'"), 2u);
  EXPECT_FALSE(cap.contains("TransportMethod error on register"));
  EXPECT_EQ(rig.watcher.calls, 2);
}

TEST(TransportMethod, OtherExceptionsPropagateWithoutNotification) {
  Rig rig;
  rig.fake->mode = FakeImpl::Fail::other;
  EXPECT_THROW(rig.tm->regRead("ctrl"), std::logic_error);
  EXPECT_THROW(rig.tm->regWrite("ctrl", 1), std::logic_error);
  EXPECT_THROW(rig.tm->regWriteWithCallback("ctrl", 1, nullptr), std::logic_error);
  EXPECT_EQ(rig.watcher.calls, 0);
}

TEST(TransportMethod, FailedCallbackAccessCallsBackOnceWithStatusTwoAndNoTrace) {
  for (auto mode : {FakeImpl::Fail::runtime, FakeImpl::Fail::sigbus}) {
    Rig rig;
    rig.fake->mode = mode;
    Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
    std::vector<int> writes;
    rig.tm->regWriteWithCallback("ctrl", 9, [&](char const* n, RegCallbackStatus s) {
      EXPECT_STREQ(n, "ctrl");
      writes.push_back(s);
    });
    EXPECT_EQ(writes, std::vector<int>{2});
    std::vector<std::pair<int, uint32_t>> reads;
    rig.tm->regReadWithCallback("ctrl", [&](char const*, RegCallbackStatus s, uint32_t v) { reads.emplace_back(s, v); });
    EXPECT_EQ(reads, (std::vector<std::pair<int, uint32_t>>{{2, 0xFFFFFFFFu}}));
    EXPECT_EQ(rig.watcher.calls, 2);
    EXPECT_FALSE(cap.contains("error on register"));
    EXPECT_FALSE(cap.contains("Got SIGBUS"));
    EXPECT_EQ(cap.count("Notifying agent: chip0"), 2u);
  }
}

TEST(TransportMethod, EmptyCallbacksStillRaiseTheNotification) {
  Rig rig;
  rig.fake->mode = FakeImpl::Fail::runtime;
  rig.tm->regWriteWithCallback("ctrl", 9, nullptr);
  EXPECT_EQ(rig.fake->writes, 1);  // the write form writes without a callback
  EXPECT_EQ(rig.watcher.calls, 1);
  rig.tm->regReadWithCallback("ctrl", nullptr);
  EXPECT_EQ(rig.fake->reads, 0);  // the read form does not read without one
  EXPECT_EQ(rig.watcher.calls, 1);
}

TEST(TransportMethod, UnknownNameOnCsvBackedMockIsAFailedRead) {
  auto tm = TransportMethod::TransportMethodIs("chip1");
  tm->init(mockTransportDescriptorFactory(), kDemoCsv);
  ErrorWatcher watcher;
  watcher.notifierIs(tm->errorNotifier());
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(tm->regRead("no_such_register"), 0xFFFFFFFFu);
  EXPECT_TRUE(cap.contains(
      "TransportMethod error on register 'no_such_register': RegisterFile does not have register 'no_such_register'!",
      0));
  EXPECT_EQ(watcher.calls, 1);
}

TEST(TransportMethod, WithoutNotifierFailuresAreOnlyTraced) {
  auto tm = TransportMethod::TransportMethodIs("chip0");
  auto* fake = new FakeImpl;
  fake->mode = FakeImpl::Fail::runtime;
  tm->implPtrIs(fake);
  Kiv::TraceCapture cap("TarnRegFile/TransportMethod");
  EXPECT_EQ(tm->regRead("ctrl"), 0xFFFFFFFFu);
  EXPECT_TRUE(cap.contains("Notifying agent: chip0"));
  tm->errorNotifierIs("chip0");
  tm->errorNotifierDel();
  EXPECT_FALSE(tm->errorNotifier());
  tm->regWrite("ctrl", 1);
  EXPECT_EQ(cap.count("Notifying agent: chip0"), 2u);
}

TEST(TransportMethod, ObserverMayDropTheNotifierWhileBeingTold) {
  Rig rig;
  rig.fake->mode = FakeImpl::Fail::runtime;
  struct Dropper : TransportMethodError::Notifiee {
    void onError() override { tm->errorNotifierDel(); }
    TransportMethod* tm = nullptr;
  } dropper;
  dropper.tm = rig.tm.ptr();
  dropper.notifierIs(rig.tm->errorNotifier());
  rig.watcher.notifierIs(nullptr);
  EXPECT_EQ(rig.tm->regRead("ctrl"), 0xFFFFFFFFu);
  EXPECT_FALSE(rig.tm->errorNotifier());
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
    EXPECT_EQ(tm->implPtr(), nullptr);
    EXPECT_EQ(errorOf([&] { tm->regRead("ctrl"); }), "TransportMethod implementation does not exist");
    tm->implPtrIs(new FakeImpl(&destroyed));
  }
  EXPECT_EQ(destroyed, 3);  // the destructor ran handleDeletion
}

// ---------------------------------------------------------------- value type and notifier

TEST(TransportMethodRegFile, ComparesTextFormAndParsesBack) {
  auto const model = smallModel();
  TransportMethodRegFile const a("/maps/x.csv");
  EXPECT_EQ(a, TransportMethodRegFile("/maps/x.csv", nullptr));
  EXPECT_FALSE(a == TransportMethodRegFile("/maps/x.csv", model));
  EXPECT_FALSE(a == TransportMethodRegFile("/maps/y.csv"));

  std::string const text = a.valueToStrep();
  EXPECT_EQ(text, "Value('TarnRegFile::TransportMethodRegFile', ** {'csvPath': '/maps/x.csv', 'regFileModel': None})");
  EXPECT_EQ(Kiv::fromText<TransportMethodRegFile>(text), a);
  TransportMethodRegFile const quoted("it's");
  EXPECT_EQ(Kiv::fromText<TransportMethodRegFile>(quoted.valueToStrep()), quoted);

  TransportMethodRegFile const withModel("", model);
  EXPECT_EQ(withModel.valueToStrep(),
            "Value('TarnRegFile::TransportMethodRegFile', ** {'csvPath': '', "
            "'regFileModel': <Hardware::TarnRegFile::HardwareRegisterFile 'small'>})");
  EXPECT_THROW(Kiv::fromText<TransportMethodRegFile>(withModel.valueToStrep()), Kiv::ParseException);
  EXPECT_THROW(Kiv::fromText<TransportMethodRegFile>("Value('Other', ** {})"), Kiv::ParseException);
}

TEST(TransportMethodError, GenericInterfaceReadsAndWritesError) {
  auto& registry = Kiv::TypeRegistry::instance();
  auto notifier = TransportMethodError::TransportMethodErrorIs("chip9");
  ErrorWatcher watcher;
  watcher.notifierIs(notifier);
  EXPECT_EQ(registry.attribute(*notifier, "chipName"), "chip9");
  EXPECT_EQ(registry.attribute(*notifier, "error"), "False");
  registry.attributeIs(*notifier, "error", "true");
  EXPECT_TRUE(notifier->error());
  EXPECT_EQ(watcher.calls, 1);
  notifier->errorIs(true);  // no change: no notification
  EXPECT_EQ(watcher.calls, 1);
  notifier->errorSignal();  // the failure signal is always delivered
  EXPECT_EQ(watcher.calls, 2);
  registry.attributeIs(*notifier, "error", "False");
  EXPECT_FALSE(notifier->error());
  EXPECT_EQ(watcher.calls, 3);
  EXPECT_THROW(registry.attributeIs(*notifier, "error", "maybe"), std::runtime_error);

  auto const created = registry.create("TarnRegFile::TransportMethodError", "chip3");
  EXPECT_EQ(registry.attribute(*created, "chipName"), "chip3");
}

TEST(TransportMethod, GenericInterfacePublishesAccessByName) {
  Rig rig;
  auto& registry = Kiv::TypeRegistry::instance();
  EXPECT_EQ(registry.call(*rig.tm, "regRead", {"ctrl"}), "4660");
  registry.call(*rig.tm, "regWrite", {"ctrl", "0x10"});
  EXPECT_EQ(rig.fake->lastWrite, 16u);
  EXPECT_EQ(registry.call(*rig.tm, "regNameToAddr", {"ctrl"}), "16");
  EXPECT_EQ(registry.attribute(*rig.tm, "name"), "chip0");
}

}  // namespace
