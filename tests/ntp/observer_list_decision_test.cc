// SPDX-License-Identifier: Apache-2.0
// The scan of observer_list.h, from a table of lists.
#include <map>
#include <memory>
#include <string>

#include "gtest/gtest.h"
#include "ntp/observer_list.h"

namespace skorra {
namespace {

class Listener : public NtpTimeManager::Observer {
 public:
  void OnNtpResult(NtpResult /*result*/, const std::string& /*message*/,
                   const net::IPEndPoint& /*server*/) override {}
};

// Lists as texts: a letter is an observer, an 'x' one that has expired.
class ObserverListDecisionTest : public ::testing::Test {
 protected:
  std::shared_ptr<Listener> Named(char name) {
    std::shared_ptr<Listener>& listener = listeners_[name];
    if (listener == nullptr) {
      listener = std::make_shared<Listener>();
    }
    return listener;
  }
  ObserverList FromText(const std::string& text) {
    ObserverList list;
    for (const char name : text) {
      list.push_back(name == 'x' ? std::make_shared<Listener>() : Named(name));
    }
    return list;
  }
  std::string ToText(const ObserverList& list) {
    std::string text;
    for (const auto& entry : list) {
      char name = 'x';
      for (const auto& [letter, listener] : listeners_) {
        name = entry.lock() == listener ? letter : name;
      }
      text += name;
    }
    return text;
  }

 private:
  std::map<char, std::shared_ptr<Listener>> listeners_;
};

TEST_F(ObserverListDecisionTest, TheScanErasesAnExpiredEntryAndPassesOverTheTwoAfterIt) {
  struct Case {
    const char* what;
    std::string list;
    char sought;
    std::string left;
    int found;  // the position in the list that is left; -1: the end
  };
  const Case cases[] = {
      {"an empty list", "", 'A', "", -1},
      {"the first", "ABC", 'A', "ABC", 0},
      {"the last", "ABC", 'C', "ABC", 2},
      {"one that is not listed", "ABC", 'D', "ABC", -1},
      {"the first of two", "BAA", 'A', "BAA", 1},
      {"the only entry has expired", "x", 'A', "", -1},
      {"right after an expired one it is passed over", "xA", 'A', "A", -1},
      {"so is the second after it", "xAB", 'B', "AB", -1},
      {"the third after it is found", "xABC", 'C', "ABC", 2},
      {"an entry before the expired one is found at once", "Ax", 'A', "Ax", 0},
      {"an expired entry that is passed over stays", "xxAB", 'B', "xAB", 2},
      {"of four expired ones the first and the fourth go", "xxxxA", 'A', "xxA", -1},
      {"a repeated one is found where it is not passed over", "xACA", 'A', "ACA", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ObserverList list = FromText(c.list);
    const auto entry = FindObserver(list, Named(c.sought).get());
    EXPECT_EQ(ToText(list), c.left);
    EXPECT_EQ(entry == list.end() ? -1 : static_cast<int>(entry - list.begin()), c.found);
  }
}

TEST_F(ObserverListDecisionTest, TheScanKeepsNoObserverAlive) {
  ObserverList list = FromText("A");
  const std::shared_ptr<Listener> sought = Named('A');
  FindObserver(list, sought.get());
  EXPECT_EQ(sought.use_count(), 2) << "the test's two references";
}

}  // namespace
}  // namespace skorra
