// IntrusiveList_test.cpp - items in a row that hold their places themselves.
#include "keelbase/internal/IntrusiveList.h"

#include <gtest/gtest.h>

#include <string>

namespace keelbase::internal {
namespace {

struct Item {
  explicit Item(char letter) : name(letter) {}
  const char name;
  ListPlace<Item> place;
};

using List = IntrusiveList<Item, &Item::place>;

std::string NamesIn(const List& list) {
  std::string names;
  for (const Item* item = list.First(); item != nullptr; item = List::After(*item))
    names += item->name;
  return names;
}

class IntrusiveListTest : public testing::Test {
 protected:
  void AppendAll() {
    for (Item* item : {&a_, &b_, &c_}) list_.Append(*item);
  }

  Item a_{'a'};
  Item b_{'b'};
  Item c_{'c'};
  List list_;
};

TEST_F(IntrusiveListTest, IsEmptyAtFirst) {
  EXPECT_TRUE(list_.IsEmpty());
  EXPECT_EQ(list_.First(), nullptr);
  EXPECT_FALSE(list_.Contains(a_));
}

TEST_F(IntrusiveListTest, KeepsTheOrderInWhichItemsCame) {
  AppendAll();
  EXPECT_EQ(NamesIn(list_), "abc");
  EXPECT_FALSE(list_.IsEmpty());
}

TEST_F(IntrusiveListTest, KnowsWhoIsThere) {
  list_.Append(a_);
  EXPECT_TRUE(list_.Contains(a_));  // the only one has no neighbours
  EXPECT_FALSE(list_.Contains(b_));
  list_.Append(b_);
  EXPECT_TRUE(list_.Contains(b_));
}

TEST_F(IntrusiveListTest, LetsTheFirstTheMiddleAndTheLastLeave) {
  AppendAll();
  list_.Remove(b_);
  EXPECT_EQ(NamesIn(list_), "ac");
  list_.Remove(c_);
  EXPECT_EQ(NamesIn(list_), "a");
  list_.Append(b_);
  EXPECT_EQ(NamesIn(list_), "ab");
  list_.Remove(a_);
  EXPECT_EQ(NamesIn(list_), "b");
  list_.Remove(b_);
  EXPECT_TRUE(list_.IsEmpty());
}

TEST_F(IntrusiveListTest, TakesBackWhoHasLeft) {
  AppendAll();
  list_.Remove(a_);
  list_.Append(a_);
  EXPECT_EQ(NamesIn(list_), "bca");
}

TEST_F(IntrusiveListTest, IgnoresThatSomebodyLeavesWhoIsNotThere) {
  AppendAll();
  list_.Remove(b_);
  list_.Remove(b_);
  EXPECT_EQ(NamesIn(list_), "ac");
}

}  // namespace
}  // namespace keelbase::internal
