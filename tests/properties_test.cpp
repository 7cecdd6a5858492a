#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "properties/lookup.h"
#include "properties/simple_signal.h"
#include "properties/value_container.h"

namespace {

TEST(Signal, StrongSlotsFirstThenLiveWeakSlotsInOrder) {
  simple_signal::signal<std::string> signal;
  std::vector<std::string> calls;
  auto weak = [&](char const* name) {
    return std::make_shared<std::function<void(std::string)>>(
        [&calls, name](std::string s) { calls.push_back(name + s); });
  };
  signal.connect([&](std::string s) {
    calls.push_back("A" + s);
    s = "changed";  // must not leak into the next slot's copy
  });
  auto w1 = weak("W1"), w2 = weak("W2"), w3 = weak("W3");
  signal.connectWeak(w1);
  signal.connectWeak(w2);
  signal.connectWeak(w3);
  signal.connect([&](std::string s) { calls.push_back("B" + s); });
  signal("x");
  EXPECT_EQ(calls, (std::vector<std::string>{"Ax", "Bx", "W1x", "W2x", "W3x"}));
  w2.reset();
  calls.clear();
  signal("y");
  EXPECT_EQ(calls, (std::vector<std::string>{"Ay", "By", "W1y", "W3y"}));
  EXPECT_EQ(signal.weakSlots.size(), 2u);  // the expired slot is dropped
}

TEST(ValueContainer, NotifiesOnlyOnRealChange) {
  value_container c;
  int notified = 0;
  c.changed.connect([&](value_container&) { ++notified; });
  c = "server";
  c = std::string("server");
  EXPECT_EQ(notified, 1);
  EXPECT_TRUE(c.is_string());
  c = 5;  // type change keeps the old string field
  EXPECT_EQ(notified, 2);
  EXPECT_TRUE(c.is_integer());
  EXPECT_STREQ(static_cast<char const*>(c), "server");
  c.string() = "quiet";  // writes through references never notify
  EXPECT_EQ(notified, 2);

  value_container fresh;
  fresh.changed.connect([&](value_container&) { ++notified; });
  fresh = false;  // same raw value, but the type changes from none
  EXPECT_EQ(notified, 3);
  EXPECT_TRUE(fresh.is_boolean());

  value_container link(link_t{"/etc/a", "secret"});
  link.changed.connect([&](value_container&) { ++notified; });
  link = link_t{"/etc/b", "secret"};  // differs only in target
  EXPECT_EQ(notified, 4);
  EXPECT_THROW(value_container(static_cast<char const*>(nullptr)), std::logic_error);
}

TEST(Lookup, AddsMissingNamesInOrderAndSharesContainers) {
  auto token = std::make_shared<value_container>("t");
  lookup table{{"token", token},
               {"dup", std::make_shared<value_container>(1)},
               {"dup", std::make_shared<value_container>(2)}};
  EXPECT_EQ(table["token"], token);
  EXPECT_EQ(table["dup"]->integer(), 1);
  auto missing = table["Token"];  // names are case-sensitive
  EXPECT_FALSE(missing->valid());
  EXPECT_EQ(table["Token"], missing);
  std::vector<std::string> names;
  for (auto const& entry : table) names.push_back(entry.first);
  EXPECT_EQ(names, (std::vector<std::string>{"token", "dup", "dup", "Token"}));
}

}  // namespace
