// SPDX-License-Identifier: Apache-2.0
#include "platform/base/callback.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace base {
namespace {

class Receiver {
 public:
  void Add(int number) { numbers.push_back(number); }
  void Keep(std::unique_ptr<int> number) { numbers.push_back(*number); }
  void Read(const std::string& text) { texts.push_back(text); }
  void Hold(const std::shared_ptr<int>&) {}
  WeakPtr<Receiver> GetWeakPtr() const { return weak_owner_.GetWeakPtr(); }

  std::vector<int> numbers;
  std::vector<std::string> texts;

 private:
  WeakPtrOwner<Receiver> weak_owner_{this};
};

TEST(CallbackTest, AnUnretainedReceiverIsCalledWithCopiesOfTheArguments) {
  Receiver receiver;
  std::string text = "before";
  OnceCallback<void()> closure = BindOnce(&Receiver::Read, Unretained(&receiver), text);
  text = "after";
  std::move(closure).Run();
  EXPECT_EQ(receiver.texts, std::vector<std::string>{"before"});
}

TEST(CallbackTest, AClosureRunsAtMostOnce) {
  Receiver receiver;
  OnceCallback<void()> closure = BindOnce(&Receiver::Add, Unretained(&receiver), 7);
  EXPECT_FALSE(closure.IsCancelled());
  std::move(closure).Run();
  EXPECT_TRUE(closure.IsCancelled());
  EXPECT_FALSE(closure);
  std::move(closure).Run();
  EXPECT_EQ(receiver.numbers, std::vector<int>{7});
}

TEST(CallbackTest, AnEmptyClosureIsCancelledAndRunsNothing) {
  OnceCallback<void()> closure;
  EXPECT_TRUE(closure.IsCancelled());
  EXPECT_FALSE(closure);
  std::move(closure).Run();
}

TEST(CallbackTest, AMoveOnlyArgumentIsHandedOver) {
  Receiver receiver;
  OnceCallback<void()> closure = BindOnce(&Receiver::Keep, Unretained(&receiver), std::make_unique<int>(3));
  OnceCallback<void()> moved = std::move(closure);
  std::move(moved).Run();
  EXPECT_EQ(receiver.numbers, std::vector<int>{3});
}

TEST(CallbackTest, AMoveOnlyFunctorRuns) {
  int seen = 0;
  OnceCallback<void()> closure = BindOnce([number = std::make_unique<int>(5), &seen] { seen = *number; });
  EXPECT_FALSE(closure.IsCancelled());
  std::move(closure).Run();
  EXPECT_EQ(seen, 5);
}

TEST(CallbackTest, AClosureOfAWeakReceiverIsCancelledWithIt) {
  auto receiver = std::make_unique<Receiver>();
  OnceCallback<void()> living = BindOnce(&Receiver::Add, receiver->GetWeakPtr(), 1);
  OnceCallback<void()> late = BindOnce(&Receiver::Add, receiver->GetWeakPtr(), 2);
  std::move(living).Run();
  EXPECT_EQ(receiver->numbers, std::vector<int>{1});
  receiver = nullptr;
  EXPECT_TRUE(late.IsCancelled());
  std::move(late).Run();  // must not touch the receiver
}

TEST(CallbackTest, AWeakPointerReachesItsObjectAndIsNullOnceThatIsGone) {
  auto receiver = std::make_unique<Receiver>();
  const WeakPtr<Receiver> weak = receiver->GetWeakPtr();
  ASSERT_TRUE(weak);
  weak->Add(4);
  EXPECT_EQ((*weak).numbers, std::vector<int>{4});
  receiver = nullptr;
  EXPECT_FALSE(weak);
  EXPECT_EQ(weak.get(), nullptr);
  EXPECT_FALSE(WeakPtr<Receiver>());
}

TEST(CallbackTest, BoundArgumentsAreReleasedBeforeRunReturns) {
  Receiver receiver;
  const auto argument = std::make_shared<int>(0);
  OnceCallback<void()> closure = BindOnce(&Receiver::Hold, Unretained(&receiver), argument);
  EXPECT_EQ(argument.use_count(), 2);
  std::move(closure).Run();
  EXPECT_EQ(argument.use_count(), 1);
}

TEST(CallbackTest, BoundArgumentsAreReleasedWhenTheClosureIsDroppedUnrun) {
  Receiver receiver;
  const auto argument = std::make_shared<int>(0);
  {
    const OnceCallback<void()> closure = BindOnce(&Receiver::Hold, Unretained(&receiver), argument);
    EXPECT_EQ(argument.use_count(), 2);
  }
  EXPECT_EQ(argument.use_count(), 1);
}

}  // namespace
}  // namespace base
