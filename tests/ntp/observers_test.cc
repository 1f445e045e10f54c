// SPDX-License-Identifier: Apache-2.0

// The observer list, its scan, and the delivery of outcomes.
#include <array>

#include "testing/manager_fixture.h"

namespace skorra {
namespace {

class ObserversTest : public ManagerTest {
 protected:
  using ObserverPtr = std::shared_ptr<RecordingObserver>;

  static ObserverPtr Make() { return std::make_shared<RecordingObserver>(); }

  // Registers each, in this order.
  void Register(const std::vector<ObserverPtr>& list) {
    for (const ObserverPtr& entry : list) {
      manager().AddObserver(entry);
    }
  }

  // Registers four, the first of which is gone by then.
  std::array<ObserverPtr, 4> RegisterFourWhoseFirstExpires() {
    std::array<ObserverPtr, 4> list{Make(), Make(), Make(), Make()};
    Register({list.begin(), list.end()});
    list[0].reset();
    return list;
  }

  // The registered observers in order; expired entries show as null.
  std::vector<NtpTimeManager::Observer*> Listed() {
    std::vector<NtpTimeManager::Observer*> listed;
    for (const auto& entry : peer.observers()) {
      listed.push_back(entry.lock().get());
    }
    return listed;
  }

  using List = std::vector<NtpTimeManager::Observer*>;
};

TEST_F(ObserversTest, AnObserverAddedTwiceIsListedAndNotifiedOnce) {
  const ObserverPtr a = Make();
  Register({a, a});
  EXPECT_EQ(Listed(), List{a.get()});
  peer.Notify(NtpResult::kSuccess, Address("192.0.2.1"));
  EXPECT_EQ(a->outcomes.size(), 1u);
}

TEST_F(ObserversTest, AnotherControlBlockOfTheSameObserverIsTheSameObserver) {
  const ObserverPtr a = Make();
  const std::shared_ptr<NtpTimeManager::Observer> other(a.get(), [](NtpTimeManager::Observer*) {});
  manager().AddObserver(a);
  manager().AddObserver(other);
  EXPECT_EQ(peer.observers().size(), 1u);
  manager().RemoveObserver(other);
  EXPECT_TRUE(peer.observers().empty());
}

TEST_F(ObserversTest, AddingTheEntryRightBehindAnExpiredOneListsItTwice) {
  ObserverPtr a = Make();
  const ObserverPtr b = Make();
  Register({a, b});
  a.reset();
  manager().AddObserver(b);
  EXPECT_EQ(Listed(), (List{b.get(), b.get()}));
  peer.Notify(NtpResult::kSuccess, Address("192.0.2.1"));
  EXPECT_EQ(b->outcomes.size(), 2u);
}

TEST_F(ObserversTest, AddingTheSecondEntryBehindAnExpiredOneListsItTwice) {
  const auto [w, x, y, z] = RegisterFourWhoseFirstExpires();
  manager().AddObserver(y);
  EXPECT_EQ(Listed(), (List{x.get(), y.get(), z.get(), y.get()}));
}

TEST_F(ObserversTest, AddingTheThirdEntryBehindAnExpiredOneFindsIt) {
  const auto [w, x, y, z] = RegisterFourWhoseFirstExpires();
  manager().AddObserver(z);
  EXPECT_EQ(Listed(), (List{x.get(), y.get(), z.get()}));
}

TEST_F(ObserversTest, AnExpiredEntryThatIsPassedOverStaysUntilALaterScan) {
  ObserverPtr v = Make();
  ObserverPtr w = Make();
  const ObserverPtr x = Make();
  const ObserverPtr y = Make();
  Register({v, w, x});
  v.reset();
  w.reset();
  manager().AddObserver(y);
  EXPECT_EQ(Listed(), (List{nullptr, x.get(), y.get()}));
  manager().AddObserver(y);
  EXPECT_EQ(Listed(), (List{x.get(), y.get(), y.get()}));
}

TEST_F(ObserversTest, AddingAnObserverThatIsGoneChangesNothing) {
  ObserverPtr a = Make();
  const ObserverPtr b = Make();
  Register({a, b});
  a.reset();
  ObserverPtr gone = Make();
  const std::weak_ptr<RecordingObserver> weak = gone;
  gone.reset();
  manager().AddObserver(weak);
  EXPECT_EQ(Listed(), (List{nullptr, b.get()}));
  manager().RemoveObserver(weak);
  EXPECT_EQ(Listed(), (List{nullptr, b.get()}));
}

TEST_F(ObserversTest, RemovingAnObserverListedTwiceRemovesItsFirstEntry) {
  ObserverPtr a = Make();
  const ObserverPtr b = Make();
  const ObserverPtr c = Make();
  Register({a, b});
  a.reset();
  Register({b, c});
  ASSERT_EQ(Listed(), (List{b.get(), b.get(), c.get()}));
  manager().RemoveObserver(b);
  EXPECT_EQ(Listed(), (List{b.get(), c.get()}));
}

TEST_F(ObserversTest, RemovingAnObserverThatIsNotListedPrunesWhatTheScanMeets) {
  ObserverPtr a = Make();
  const ObserverPtr b = Make();
  Register({a, b});
  a.reset();
  const ObserverPtr stranger = Make();
  manager().RemoveObserver(stranger);
  EXPECT_EQ(Listed(), List{b.get()});
}

TEST_F(ObserversTest, TheListKeepsNoObserverAlive) {
  ObserverPtr a = Make();
  const std::weak_ptr<RecordingObserver> weak = a;
  manager().AddObserver(a);
  a.reset();
  EXPECT_TRUE(weak.expired());
}

TEST_F(ObserversTest, AnObserverReleasedBeforeDeliveryIsSkipped) {
  ObserverPtr a = Make();
  const ObserverPtr b = Make();
  Register({a, b});
  a.reset();
  peer.Notify(NtpResult::kSuccess, Address("192.0.2.1"));
  EXPECT_EQ(b->outcomes.size(), 1u);
  EXPECT_EQ(Listed(), (List{nullptr, b.get()}));  // delivery does not prune
}

TEST_F(ObserversTest, AnObserverReleasedInItsOwnCallbackLivesUntilItReturns) {
  ObserverPtr a = Make();
  const std::weak_ptr<RecordingObserver> weak = a;
  manager().AddObserver(a);
  bool alive_inside = false;
  a->on_outcome = [&] {
    a.reset();
    alive_inside = !weak.expired();
  };
  peer.Notify(NtpResult::kSuccess, Address("192.0.2.1"));
  EXPECT_TRUE(alive_inside);
  EXPECT_TRUE(weak.expired());
}

TEST_F(ObserversTest, ObserversAreCalledInTheOrderOfRegistrationWithTheSameOutcome) {
  const ObserverPtr a = Make();
  const ObserverPtr b = Make();
  std::string order;
  a->on_outcome = [&] { order += "a"; };
  b->on_outcome = [&] { order += "b"; };
  Register({b, a});
  peer.Notify(NtpResult::kMaybeInaccurate, Address("192.0.2.7"));
  EXPECT_EQ(order, "ba");
  for (const ObserverPtr& each : {a, b}) {
    ASSERT_EQ(each->outcomes.size(), 1u);
    EXPECT_EQ(each->outcomes[0].result, NtpResult::kMaybeInaccurate);
    EXPECT_EQ(each->outcomes[0].message, "the result may be inaccurate");
    EXPECT_EQ(each->outcomes[0].server, Address("192.0.2.7"));
  }
}

TEST_F(ObserversTest, ChangesMadeInsideACallbackTakeEffectFromTheNextOutcome) {
  const ObserverPtr a = Make();
  const ObserverPtr b = Make();
  const ObserverPtr c = Make();
  Register({a, b});
  a->on_outcome = [&] {
    manager().RemoveObserver(b);
    manager().AddObserver(c);
  };
  peer.Notify(NtpResult::kSuccess, Address("192.0.2.1"));
  EXPECT_EQ(b->outcomes.size(), 1u);
  EXPECT_TRUE(c->outcomes.empty());
  peer.Notify(NtpResult::kSuccess, Address("192.0.2.1"));
  EXPECT_EQ(b->outcomes.size(), 1u);
  EXPECT_EQ(c->outcomes.size(), 1u);
}

TEST_F(ObserversTest, AfterADeliveryAStartIsAcceptedAndTheWindDownIsPosted) {
  peer.is_started() = true;
  ASSERT_EQ(manager().Start(), -1);
  peer.Notify(NtpResult::kNoResult, net::IPEndPoint());
  EXPECT_FALSE(peer.is_started());
  ASSERT_EQ(world.posted().size(), 1u);
  EXPECT_EQ(world.posted()[0].delay_us, 0);
  world.RunFor(Us(0));
  EXPECT_EQ(CountPosted(S(30)), 1u);
  EXPECT_EQ(manager().Start(), 0);
}

TEST_F(ObserversTest, AStartInsideTheCallbackIsAccepted) {
  const ObserverPtr a = Make();
  manager().AddObserver(a);
  int status = -2;
  a->on_outcome = [&] { status = manager().Start(); };
  peer.is_started() = true;
  peer.Notify(NtpResult::kNoResult, net::IPEndPoint());
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(peer.is_started());
}

TEST_F(ObserversTest, AddingRemovingAndNotifyingLogsNothing) {
  const ObserverPtr a = Make();
  Register({a});
  peer.Notify(NtpResult::kSuccess, net::IPEndPoint());
  manager().RemoveObserver(a);
  EXPECT_TRUE(log.empty());
}

}  // namespace
}  // namespace skorra
