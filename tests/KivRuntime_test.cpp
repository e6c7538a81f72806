// The entity runtime: counted references, strings, the seeded hash, observers,
// enumerations, the value text form and the generic interface.
#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/KivCollection.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivEnum.h"
#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/KivHash.h"
#include "TarnRegFile/platform/KivValueText.h"
#include "TarnRegFile/platform/Trace.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <utility>

namespace {

Kiv::TraceHandle kTrace("Test/KivRuntime");

struct Counted : Kiv::PtrInterface {
  explicit Counted(int* deaths) : deaths(deaths) {}
  ~Counted() override { ++*deaths; }
  int* deaths;
};

struct Other : Kiv::PtrInterface {};

TEST(KivPtr, CountsReferencesDeletesWithTheLastAndCastsChecked) {
  int deaths = 0;
  {
    Kiv::Ptr<Counted> a(new Counted(&deaths));
    Kiv::Ptr<Counted> b = a;
    EXPECT_EQ(a->references(), 2u);
    Kiv::Ptr<Counted> c = std::move(b);
    EXPECT_FALSE(b);
    EXPECT_EQ(a->references(), 2u);
    c = nullptr;
    EXPECT_EQ(a->references(), 1u);
    Kiv::Ptr<Kiv::PtrInterface> base = a;
    EXPECT_EQ(Kiv::ptr_cast<Counted>(base), a);
    EXPECT_FALSE(Kiv::ptr_cast<Other>(base));
    EXPECT_EQ(deaths, 0);
  }
  EXPECT_EQ(deaths, 1);
}

TEST(KivString, SharesCharactersAndComparesByContent) {
  Kiv::String a("chip0");
  Kiv::String b = std::string("chip0");
  Kiv::String c = std::string_view("chip1");
  EXPECT_EQ(a, b);
  EXPECT_LT(a, c);
  EXPECT_EQ(a.data(), Kiv::String(a).data());  // a copy shares the block
  EXPECT_EQ(Kiv::String::concat({"c", "-", "r", "-", "f"}), "c-r-f");
  EXPECT_EQ(Kiv::String::concat({"", "-", ""}), "-");
  EXPECT_EQ((std::unordered_set<Kiv::String>{a, b, c}).size(), 2u);
}

TEST(KivString, TextFormQuotesAndEscapesAndReadsBack) {
  struct Case {
    std::string raw, text;
  } const cases[] = {{"", "''"}, {"abc", "'abc'"}, {"it's", "'it\\'s'"}, {"a\\b", "'a\\\\b'"}, {"\n", "'\\x0a'"}};
  for (auto const& c : cases) {
    EXPECT_EQ(Kiv::strep(Kiv::String(c.raw)), c.text);
    Kiv::String::IteratorConst pos = c.text.data();
    Kiv::ValueReader r(pos, c.text.data() + c.text.size());
    Kiv::String back;
    r.read(back);
    EXPECT_EQ(back, c.raw);
    EXPECT_TRUE(r.atEnd());
  }
}

TEST(KivHash, IsFixedAcrossArchitecturesAndDependsOnSeedAndOrder) {
  U32 const h0 = Kiv::Hash(0).mix4(5).mix1(0).mix1(32).result();
  EXPECT_NE(h0, Kiv::Hash(1).mix4(5).mix1(0).mix1(32).result());
  EXPECT_NE(h0, Kiv::Hash(0).mix4(5).mix1(32).mix1(0).result());
  // These constants pin the hash: tables in shared memory are shared by i386 and
  // amd64 processes, so a change here would make them disagree on slots.
  EXPECT_EQ(h0, 0x33fe2153u);
  EXPECT_EQ(Kiv::stringHash("chip0-ctrl-en"), 0x891f1152u);
}

class Thing : public Kiv::Entity {
public:
  class Notifiee : public Kiv::Notifiee<Thing> {
  public:
    virtual void onValue() {}
  };
  explicit Thing(Kiv::String name) : Kiv::Entity(std::move(name)) {}
  void valueIs(int v) {
    value_ = v;
    notify<Notifiee>([](Notifiee& n) { n.onValue(); });
  }
  int value() const { return value_; }
  char const* fwkType() const override { return "Test::Thing"; }

private:
  int value_ = 0;
};

struct Counter : Thing::Notifiee {
  void onValue() override {
    ++calls;
    if (onCall) onCall();
  }
  int calls = 0;
  std::function<void()> onCall;
};

TEST(KivEntity, NotifiesOnlyActiveObserversOfAnActiveEntity) {
  auto thing = Kiv::create<Thing>("t");
  Counter a, b;
  a.notifierIs(thing);
  b.notifierIs(thing);
  EXPECT_EQ(thing->references(), 3u);  // observers hold the entity
  thing->valueIs(1);
  b.isNotificationActiveIs(false);
  thing->valueIs(2);
  EXPECT_EQ(a.calls, 2);
  EXPECT_EQ(b.calls, 1);
  thing->hasNotificationActiveIs(false);
  thing->valueIs(3);
  EXPECT_EQ(a.calls, 2);
  a.notifierIs(nullptr);
  EXPECT_EQ(thing->references(), 2u);
}

TEST(KivEntity, ObserversMayDetachDuringDelivery) {
  auto thing = Kiv::create<Thing>("t");
  auto first = std::make_unique<Counter>();
  auto second = std::make_unique<Counter>();
  Counter third;
  first->notifierIs(thing);
  second->notifierIs(thing);
  third.notifierIs(thing);
  first->onCall = [&] { second.reset(); };  // removes a later observer mid-delivery
  thing->valueIs(1);
  EXPECT_EQ(third.calls, 1);
  EXPECT_EQ(thing->notifieeCount(), 2u);
  thing->valueIs(2);
  EXPECT_EQ(third.calls, 2);
}

TEST(KivEntity, AThrowingObserverDoesNotCutTheDeliveryShort) {
  auto thing = Kiv::create<Thing>("t");
  auto first = std::make_unique<Counter>();
  Counter second, third;
  first->notifierIs(thing);
  second.notifierIs(thing);
  third.notifierIs(thing);
  first->onCall = [] { throw std::runtime_error("first"); };
  second.onCall = [&] {
    first.reset();  // detached mid-delivery, after it threw
    throw std::logic_error("second");
  };
  EXPECT_THROW(thing->valueIs(1), std::runtime_error) << "the first failure travels on";
  EXPECT_EQ(third.calls, 1) << "observers after a throwing one still hear of the change";
  // The delivery ended cleanly: the detached slot is gone and the next change is delivered.
  EXPECT_EQ(thing->notifieeCount(), 2u);
  second.onCall = nullptr;
  thing->valueIs(2);
  EXPECT_EQ(second.calls, 2);
  EXPECT_EQ(third.calls, 2);
}

// An entity whose observer of another entity goes away before the entity itself does.
class Watcher : public Kiv::Entity {
public:
  struct Reactor : Thing::Notifiee {
    void onValue() override { ++calls; }
    int calls = 0;
  };
  explicit Watcher(Kiv::Ptr<Thing> const& thing, bool* retired) : retired_(retired) {
    reactor_ = std::make_unique<Reactor>();
    reactor_->notifierIs(thing);
  }
  ~Watcher() override { EXPECT_FALSE(reactor_) << "reactors retire before destruction"; }
  char const* fwkType() const override { return "Test::Watcher"; }

protected:
  void retireReactors() noexcept override {
    reactor_.reset();
    *retired_ = true;
  }

private:
  std::unique_ptr<Reactor> reactor_;
  bool* retired_;
};

TEST(KivEntity, ReactorsRetireWhenTheLastReferenceGoes) {
  auto thing = Kiv::create<Thing>("t");
  bool retired = false;
  auto watcher = Kiv::create<Watcher>(thing, &retired);
  EXPECT_EQ(thing->notifieeCount(), 1u);
  watcher = nullptr;
  EXPECT_TRUE(retired);
  EXPECT_EQ(thing->notifieeCount(), 0u);
  EXPECT_EQ(thing->references(), 1u) << "the reactor's reference went with it";
}

TEST(KivCollection, SetReportsRealChangesOnly) {
  Kiv::KeyedCollection<int, int> coll;
  EXPECT_TRUE(coll.set(1, 10));
  EXPECT_FALSE(coll.set(1, 10));
  EXPECT_TRUE(coll.set(1, 11));
  EXPECT_EQ(coll.take(1), 11);
  EXPECT_FALSE(coll.take(1));
}

TEST(KivEnum, MapsValuesAndLiteralsBothWaysAndRejectsUnknown) {
  Kiv::EnumTable table{{"Test::Colour", {{0, "red"}, {1, "green"}}}, {"Test::Size", {{0, "small"}}}};
  EXPECT_EQ(table.stringValue(0, 1), "green");
  EXPECT_EQ(table.instance(0, "red"), 0u);
  EXPECT_EQ(table.valueToStrep(1, 0), "'small'");
  EXPECT_THROW(table.instance(0, 7u), Kiv::RangeException);
  EXPECT_THROW(table.instance(0, "blue"), Kiv::RangeException);
  std::string text = "'green' rest";
  Kiv::String::IteratorConst pos = text.data();
  EXPECT_EQ(table.sequenceToValue(0, pos, text.data() + text.size()), 1u);
  EXPECT_EQ(std::string_view(pos), " rest");
}

TEST(KivValueText, WritesAndReadsAttributesAndNamesTheFailingOne) {
  std::string text;
  Kiv::ValueWriter(text, "Test::Pair").attr("a", 7u).attr("s", Kiv::String("x'y")).end();
  EXPECT_EQ(text, "Value('Test::Pair', ** {'a': 7, 's': 'x\\'y'})");
  auto const readPair = [](std::string const& t) {
    Kiv::String::IteratorConst pos = t.data();
    Kiv::ValueReader r(pos, t.data() + t.size());
    std::pair<U32, Kiv::String> v;
    r.expect("Value('Test::Pair', ** {'a': ");
    r.attr("a", v.first);
    r.expect(", 's': ");
    r.attr("s", v.second);
    r.expect("})");
    EXPECT_TRUE(r.atEnd());
    return v;
  };
  EXPECT_EQ(readPair(text), std::make_pair(7u, Kiv::String("x'y")));
  EXPECT_THROW(readPair("Value('Test::Pair', ** {'a': 7, 's': ''}"), Kiv::ParseException);
  for (char const* bad : {"Value('Test::Pair', ** {'a': x, 's': ''})", "Value('Test::Pair', ** {'a': 4294967296})"}) {
    try {
      readPair(bad);
      ADD_FAILURE() << bad;
    } catch (Kiv::ParseException const& e) {
      EXPECT_EQ(std::string(e.what()).rfind("a: ", 0), 0u) << e.what();
    }
  }
}

TEST(KivGeneric, CallsPublishedOperationsWithTextArguments) {
  auto& reg = Kiv::TypeRegistry::instance();
  auto& type = reg.typeIs("Test::Thing");
  type.factory = [](Kiv::String const& n) { return Kiv::Ptr<Kiv::Entity>(Kiv::create<Thing>(n)); };
  type.methods["valueIs"] = Kiv::method<&Thing::valueIs>();
  type.attributes["value"] = Kiv::method<&Thing::value>();
  auto e = reg.create("Test::Thing", "t1");
  EXPECT_EQ(reg.call(*e, "valueIs", {"0x10"}), "");
  EXPECT_EQ(reg.attribute(*e, "value"), "16");
  EXPECT_THROW(reg.call(*e, "valueIs", {}), std::runtime_error);
  EXPECT_THROW(reg.call(*e, "valueIs", {"three"}), std::runtime_error);
  EXPECT_THROW(reg.call(*e, "nothing", {}), std::runtime_error);
  EXPECT_THROW(reg.create("Test::Nothing", "x"), std::runtime_error);
}

TEST(KivTrace, CapturesSeeEnabledLevelsAndTheRingKeepsLevelZero) {
  Kiv::TraceCapture cap("Test/KivRuntime", Kiv::Trace::upTo(5));
  kTrace.line(5, "value {}", 42);
  kTrace.printf(1, "Write field: %s value: %s hex %#x", Kiv::String("c-r-f"), 7u, 255u);
  kTrace.line(8, "never {}", 1);
  ASSERT_EQ(cap.records().size(), 2u);
  EXPECT_EQ(cap.records()[0].text, "value 42");
  EXPECT_EQ(cap.records()[1].text, "Write field: c-r-f value: 7 hex 0xff");

  Kiv::Trace::ringClear();
  kTrace.line(0, "ring {}", "line");
  auto const lines = Kiv::Trace::ringLines();
  ASSERT_FALSE(lines.empty());
  EXPECT_NE(lines.back().find("Test/KivRuntime L0 ring line"), std::string::npos);
}

// The ring line of `emit` as recorded (formatted when read) and as formatted at once
// (a capture makes the line go through the formatting path); both without the time stamp.
template <class F>
std::pair<std::string, std::string> recordedAndFormatted(F const& emit) {
  auto const lastLine = [] {
    auto const lines = Kiv::Trace::ringLines();
    std::string line = lines.empty() ? "" : lines.back();
    EXPECT_TRUE(std::regex_search(line, std::regex("^\\d\\d:\\d\\d:\\d\\d\\.\\d{6} "))) << line;
    return line.size() < 16 ? line : line.substr(16);
  };
  emit();
  std::string recorded = lastLine();
  Kiv::TraceCapture cap("Test/KivRuntime");
  emit();
  return {recorded, lastLine()};
}

TEST(KivTrace, RingRecordsReadBackAsTheFormattedLine) {
  int const local = 0;
  std::string const longText(1000, 'x');
  std::string utf8;
  for (int i = 0; i < 200; ++i) utf8 += "\xc3\xa9";  // U+00E9, two bytes each
  char const* const nullText = nullptr;
  std::pair<std::function<void()>, std::string> const cases[] = {
      {[] { kTrace.printf(0, "Write field: %s value: %s", Kiv::String("chip0-r-f"), 511u); },
       "Test/KivRuntime L0 Write field: chip0-r-f value: 511"},
      {[] { kTrace.printf(2, "%s|%s|%s|%d|%u|%x|%#X|%c|%%", std::string("std"), std::string_view("view"), "lit", -5,
                          U8{200}, U64{0xdeadbeefcafeull}, 255, 'q'); },
       "Test/KivRuntime L2 std|view|lit|-5|200|deadbeefcafe|0XFF|q|%"},
      {[] { kTrace.line(1, "{} {:d} {} {} {:>6}|{:<4}|{:08.3f}", true, false, 1.5, 0.1f, "pad", 'c', -2.25); },
       "Test/KivRuntime L1 true 0 1.5 0.1    pad|c   |-002.250"},
      {[] { kTrace.lineIn(0, "tryPerformIO", "error on register '{}': {}", Kiv::String("ctl"), "bus"); },
       "Test/KivRuntime L0 tryPerformIO: error on register 'ctl': bus"},
      {[&] { kTrace.line(0, "{}", static_cast<void const*>(&local)); }, fmt::format("Test/KivRuntime L0 {}", fmt::ptr(&local))},
      {[&] { kTrace.line(0, "null {}", nullText); }, "Test/KivRuntime L0 <bad trace format: string pointer is null>"},
      {[] { kTrace.line(0, "{} {} {} {} {} {} {} {} {}", 1, 2, 3, 4, 5, 6, 7, 8, 9); },  // more than a record keeps
       "Test/KivRuntime L0 1 2 3 4 5 6 7 8 9"},
      // Strings longer than the line: cut, and the line as long as ever.
      {[&] { kTrace.printf(0, "%s then %s and %u", longText, longText, 7u); },
       ("Test/KivRuntime L0 " + longText).substr(0, 239)},
      {[&] { kTrace.line(0, "{}{}", utf8, "tail"); }, ("Test/KivRuntime L0 " + utf8).substr(0, 239)},
  };
  for (auto const& [emit, expected] : cases) {
    auto const [recorded, formatted] = recordedAndFormatted(emit);
    EXPECT_EQ(recorded, expected);
    EXPECT_EQ(formatted, expected);
  }
}

TEST(KivTrace, RingKeepsTheNewestLinesAndOutlivesItsUnits) {
  Kiv::Trace::ringClear();
  size_t const total = Kiv::Trace::ringCapacity + 5;
  for (size_t i = 0; i < total; ++i) kTrace.printf(0, "line %u", i);
  auto lines = Kiv::Trace::ringLines();
  ASSERT_EQ(lines.size(), Kiv::Trace::ringCapacity);
  EXPECT_TRUE(lines.front().ends_with(" line 5")) << lines.front();
  EXPECT_TRUE(lines.back().ends_with(fmt::format(" line {}", total - 1))) << lines.back();

  // A record refers to its unit's name and format; a unit that goes away (its library
  // unloaded) leaves its lines behind as text.
  char unit[] = "Test/Gone";
  char format[] = "gone with %s";
  {
    Kiv::TraceHandle gone(unit);
    gone.printf(0, format, "its unit");
  }
  unit[0] = format[0] = '?';
  EXPECT_TRUE(Kiv::Trace::ringLines().back().ends_with(" Test/Gone L0 gone with its unit"));
}

void failingCheck(Kiv::String const& who, U32 n) { KIV_ASSERT(kTrace, n < 3) << "too many for " << who << ": " << n; }
int unreachable(int n) { KIV_FATAL(kTrace, "tableConsistent") << "row " << n << " lost"; }

TEST(KivAssertDeathTest, PrintsConditionMessageUnitSignatureAndTheLastRingLines) {
  auto const fail = [] {
    kTrace.printf(0, "checking %s", Kiv::String("chipA"));
    failingCheck("chipA", 5);
  };
  std::string const stamp = "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9]{6} ";
  EXPECT_DEATH(fail(), "condition: n < 3\n  message:   too many for chipA: 5\n  unit:      Test/KivRuntime\n"
                       "  function:  void \\{anonymous\\}::failingCheck\\(const Kiv::String&, U32\\)\n"
                       "(.|\n)*trace lines:\n(.|\n)*    " +
                           stamp + "Test/KivRuntime L0 checking chipA\n    " + stamp +
                           "Test/KivRuntime L0 FATAL: assertion \"n < 3\" failed: too many for chipA: 5\n");
  // The unconditional form prints the same report with its text in the condition's place.
  EXPECT_DEATH(unreachable(4),
               "condition: tableConsistent\n  message:   row 4 lost\n  unit:      Test/KivRuntime\n"
               "  function:  int \\{anonymous\\}::unreachable\\(int\\)\n.*last [0-9]+ trace lines:");
}

class Picky : public Kiv::Entity {
public:
  Picky() : Kiv::Entity("picky") {}
  void handleParent(Kiv::Entity* parent) override {
    if (parent && parent->name() == "refused") throw std::runtime_error("cannot attach");
  }
};

TEST(KivEntity, ParentStaysUnchangedWhenAttachingFails) {
  auto ok = Kiv::create<Thing>("ok");
  auto refused = Kiv::create<Thing>("refused");
  auto child = Kiv::create<Picky>();
  child->parentIs(ok.ptr());
  EXPECT_THROW(child->parentIs(refused.ptr()), std::runtime_error);
  EXPECT_EQ(child->parent(), ok.ptr());
}

}  // namespace
