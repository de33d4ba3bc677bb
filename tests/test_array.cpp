// Chains and growable arrays.
#include <gtest/gtest.h>

#include <vector>

#include "Array.h"

namespace {

struct ITEM {
  int value;
  CHAIN link;
  CHAIN other;
};

std::vector<int> walknext(CHAIN* head) {
  std::vector<int> out;
  for (CHAIN* c = head->next; c != head; c = c->next) out.push_back(CHAINRECORD(c, ITEM, link)->value);
  return out;
}

}  // namespace

TEST(Chain, EmptyHeadPointsAtItself) {
  CHAIN head;
  initchain(&head);
  EXPECT_TRUE(chainempty(&head));
  EXPECT_EQ(head.prev, &head);
  EXPECT_EQ(head.next, &head);
}

TEST(Chain, InsEndPutsNewestFirstOnNextSide) {
  CHAIN head;
  initchain(&head);
  ITEM items[3] = {{1, {}, {}}, {2, {}, {}}, {3, {}, {}}};
  for (ITEM& it : items) chaininsend(&head, &it.link);
  EXPECT_EQ(walknext(&head), (std::vector<int>{3, 2, 1}));
  // Taking from prev gives the oldest: first in, first out.
  EXPECT_EQ(CHAINRECORD(head.prev, ITEM, link)->value, 1);
}

TEST(Chain, InsBeginPutsElementOnPrevSide) {
  CHAIN head;
  initchain(&head);
  ITEM items[3] = {{1, {}, {}}, {2, {}, {}}, {3, {}, {}}};
  for (ITEM& it : items) chaininsbegin(&head, &it.link);
  EXPECT_EQ(head.prev, &items[2].link);
  EXPECT_EQ(walknext(&head), (std::vector<int>{1, 2, 3}));
}

TEST(Chain, RemoveUnlinksAndLeavesElementFields) {
  CHAIN head;
  initchain(&head);
  ITEM items[3] = {{1, {}, {}}, {2, {}, {}}, {3, {}, {}}};
  for (ITEM& it : items) chaininsend(&head, &it.link);
  CHAIN before = items[1].link;
  chainrem(&items[1].link);
  EXPECT_EQ(walknext(&head), (std::vector<int>{3, 1}));
  EXPECT_EQ(items[1].link.prev, before.prev);
  EXPECT_EQ(items[1].link.next, before.next);
  chainrem(&items[0].link);
  chainrem(&items[2].link);
  EXPECT_TRUE(chainempty(&head));
}

TEST(Chain, RecordSitsOnTwoListsThroughTwoMembers) {
  CHAIN a, b;
  initchain(&a);
  initchain(&b);
  ITEM it = {7, {}, {}};
  chaininsend(&a, &it.link);
  chaininsend(&b, &it.other);
  EXPECT_EQ(CHAINRECORD(a.next, ITEM, link), &it);
  EXPECT_EQ(CHAINRECORD(b.next, ITEM, other), &it);
}

TEST(Array, InitAllocatesEmpty) {
  ARRAY a;
  initarray(&a, sizeof(int), 4, 2);
  EXPECT_EQ(a.n, 0);
  EXPECT_EQ(a.nmax, 4);
  EXPECT_EQ(a.size, sizeof(int));
  EXPECT_NE(a.data, nullptr);
  freearray(&a);
}

TEST(Array, AddArrayGrowsFromOldCapacity) {
  ARRAY a;
  initarray(&a, sizeof(int), 2, 3);
  for (int i = 0; i < 2; i++) *arrayat<int>(&a, addarray(&a)) = i;
  EXPECT_EQ(a.nmax, 2);
  int k = addarray(&a);
  EXPECT_EQ(k, 2);
  EXPECT_EQ(a.nmax, 5);
  *arrayat<int>(&a, k) = 2;
  EXPECT_EQ(*arrayat<int>(&a, 0), 0);
  EXPECT_EQ(*arrayat<int>(&a, 2), 2);
  freearray(&a);
}

TEST(Array, AppendArrayOvershootGrowsFromNewCount) {
  ARRAY a;
  initarray(&a, sizeof(int), 4, 3);
  int first = appendarray(&a, 10);
  EXPECT_EQ(first, 0);
  EXPECT_EQ(a.n, 10);
  EXPECT_EQ(a.nmax, 13);  // new n + ngrow, not old nmax + ngrow (7)
  for (int i = 0; i < 10; i++) *arrayat<int>(&a, i) = i;
  EXPECT_EQ(appendarray(&a, 2), 10);
  EXPECT_EQ(a.nmax, 13);  // fits: no growth
  freearray(&a);
}

TEST(Array, RemoveArrayMovesRecordsDown) {
  ARRAY a;
  initarray(&a, sizeof(int), 8, 8);
  for (int i = 0; i < 5; i++) *arrayat<int>(&a, addarray(&a)) = i * 10;
  removearray(&a, 1);
  ASSERT_EQ(a.n, 4);
  EXPECT_EQ(*arrayat<int>(&a, 0), 0);
  EXPECT_EQ(*arrayat<int>(&a, 1), 20);
  EXPECT_EQ(*arrayat<int>(&a, 3), 40);
  freearray(&a);
}

TEST(Array, RemoveArrayOfLastRecordCopiesNothing) {
  ARRAY a;
  initarray(&a, sizeof(int), 4, 4);
  for (int i = 0; i < 3; i++) *arrayat<int>(&a, addarray(&a)) = i + 1;
  // The spare slot past the end is marked: a copy of even one record would
  // carry the mark into the removed record's slot.
  *arrayat<int>(&a, 3) = 99;
  removearray(&a, 2);
  EXPECT_EQ(a.n, 2);
  EXPECT_EQ(*arrayat<int>(&a, 0), 1);
  EXPECT_EQ(*arrayat<int>(&a, 1), 2);
  EXPECT_EQ(*arrayat<int>(&a, 2), 3);
  freearray(&a);
}
