// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/list.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <tuple>
#include <vector>

namespace {

struct Node : LListLink<Node> {
    explicit Node(int v) : value(v) { ++live; }
    Node(Node const& other) : LListLink<Node>(other), value(other.value) { ++live; }
    Node& operator=(Node const&) = default;
    ~Node() { --live; }

    int value;
    static inline int live = 0;
};

std::unique_ptr<Node> Make(int v) {
    return std::make_unique<Node>(v);
}

// Checks every invariant the list keeps against the plain array `model`: order by walking the
// links, head, tail (and that nothing follows it), count and emptiness.
void ExpectListIs(LList<Node> const& list, std::vector<int> const& model) {
    std::vector<int> walked;
    for (Node const& n : list) {
        walked.push_back(n.value);
        if (walked.size() > model.size() + 1) {
            break; // a cycle: stop before the walk runs forever
        }
    }
    EXPECT_EQ(walked, model);
    EXPECT_EQ(list.GetCount(), model.size());
    EXPECT_EQ(list.IsEmpty(), model.empty());
    if (model.empty()) {
        EXPECT_EQ(list.GetHead(), nullptr);
        EXPECT_EQ(list.GetTail(), nullptr);
        return;
    }
    ASSERT_NE(list.GetHead(), nullptr);
    ASSERT_NE(list.GetTail(), nullptr);
    EXPECT_EQ(list.GetHead()->value, model.front());
    EXPECT_EQ(list.GetTail()->value, model.back());
    EXPECT_EQ(list.GetTail()->GetNext(), nullptr);
}

Node* NodeAt(LList<Node>& list, std::size_t index) {
    Node* p = list.GetHead();
    for (std::size_t i = 0; i < index && p != nullptr; ++i) {
        p = p->GetNext();
    }
    return p;
}

class ListTest : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(Node::live, 0) << "entries leaked or freed twice"; }
};

TEST_F(ListTest, ListDeletesTheEntriesItOwnsAndHandsBackRemovedOnes) {
    std::unique_ptr<Node> removed;
    {
        LList<Node> list;
        for (int i = 0; i < 5; ++i) {
            list.AddTail(Make(i));
        }
        EXPECT_EQ(Node::live, 5);
        removed = list.Remove(NodeAt(list, 2));
        ASSERT_NE(removed, nullptr);
        EXPECT_EQ(removed->value, 2);
        EXPECT_EQ(removed->GetNext(), nullptr);
    }
    EXPECT_EQ(Node::live, 1); // the list freed its four, the removed one is ours
    removed.reset();

    LList<Node> list;
    list.AddHead(Make(1));
    list.AddHead(Make(2));
    list.Clear();
    ExpectListIs(list, {});
    EXPECT_EQ(Node::live, 0);
}

TEST_F(ListTest, AddingAtEitherEndOfAnEmptyListSetsHeadAndTail) {
    LList<Node> list;
    list.AddHead(Make(1));
    ExpectListIs(list, {1});
    list.AddTail(Make(2));
    ExpectListIs(list, {1, 2});
    list.AddHead(Make(0));
    ExpectListIs(list, {0, 1, 2});

    LList<Node> other;
    other.AddTail(Make(5));
    ExpectListIs(other, {5});
    other.AddHead(Make(4));
    ExpectListIs(other, {4, 5});
}

TEST_F(ListTest, InsertAfterNullAddsAtTheHeadAndAfterTheTailMovesTheTail) {
    LList<Node> list;
    list.InsertAfter(nullptr, Make(2));
    ExpectListIs(list, {2});
    list.InsertAfter(nullptr, Make(1));
    ExpectListIs(list, {1, 2});
    list.InsertAfter(list.GetTail(), Make(4));
    ExpectListIs(list, {1, 2, 4});
    list.InsertAfter(NodeAt(list, 1), Make(3));
    ExpectListIs(list, {1, 2, 3, 4});
    list.AddTail(Make(5)); // appends after the tail the insert made
    ExpectListIs(list, {1, 2, 3, 4, 5});
}

// (list size, index removed)
class ListRemoveTest : public ListTest,
                       public ::testing::WithParamInterface<std::tuple<int, int>> {};

TEST_P(ListRemoveTest, RemoveAtEveryPositionKeepsHeadTailAndCount) {
    auto const [size, index] = GetParam();
    LList<Node> list;
    std::vector<int> model;
    for (int i = 0; i < size; ++i) {
        list.AddTail(Make(i));
        model.push_back(i);
    }
    std::unique_ptr<Node> removed = list.Remove(NodeAt(list, static_cast<std::size_t>(index)));
    ASSERT_NE(removed, nullptr);
    EXPECT_EQ(removed->value, index);
    model.erase(model.begin() + index);
    ExpectListIs(list, model);

    // The ends must still work: a stale tail would lose this entry or corrupt a freed one.
    list.AddTail(Make(100));
    model.push_back(100);
    list.AddHead(Make(-1));
    model.insert(model.begin(), -1);
    ExpectListIs(list, model);
}

TEST_F(ListTest, RemoveHeadRepeatedlyEmptiesTheListInOrder) {
    for (int size = 0; size <= 3; ++size) {
        LList<Node> list;
        for (int i = 0; i < size; ++i) {
            list.AddTail(Make(i));
        }
        for (int i = 0; i < size; ++i) {
            std::unique_ptr<Node> head = list.RemoveHead();
            ASSERT_NE(head, nullptr);
            EXPECT_EQ(head->value, i);
            EXPECT_EQ(head->GetNext(), nullptr);
        }
        EXPECT_EQ(list.RemoveHead(), nullptr);
        ExpectListIs(list, {});
        list.AddTail(Make(7));
        ExpectListIs(list, {7});
    }
}

std::vector<std::tuple<int, int>> RemoveCases() {
    std::vector<std::tuple<int, int>> cases;
    for (int size = 1; size <= 4; ++size) {
        for (int index = 0; index < size; ++index) {
            cases.emplace_back(size, index);
        }
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Positions, ListRemoveTest, ::testing::ValuesIn(RemoveCases()));

TEST_F(ListTest, RemovingAnEntryOfAnotherListChangesNothing) {
    LList<Node> list;
    LList<Node> other;
    list.AddTail(Make(1));
    list.AddTail(Make(2));
    Node* foreign = other.AddTail(Make(3));
    EXPECT_EQ(list.Remove(foreign), nullptr);
    EXPECT_EQ(list.Remove(nullptr), nullptr);
    ExpectListIs(list, {1, 2});
    ExpectListIs(other, {3});
}

TEST_F(ListTest, RandomEditSequencesMatchAnArrayModel) {
    std::mt19937 random(12345);
    LList<Node> list;
    std::vector<int> model;
    int next = 0;
    for (int step = 0; step < 2000; ++step) {
        std::size_t const at = model.empty() ? 0 : random() % model.size();
        switch (random() % 6) {
        case 0:
            list.AddTail(Make(next));
            model.push_back(next++);
            break;
        case 1:
            list.AddHead(Make(next));
            model.insert(model.begin(), next++);
            break;
        case 2:
            list.InsertAfter(model.empty() ? nullptr : NodeAt(list, at), Make(next));
            model.insert(model.empty() ? model.begin() : model.begin() + at + 1, next++);
            break;
        case 3:
            if (!model.empty()) {
                EXPECT_NE(list.Remove(NodeAt(list, at)), nullptr);
                model.erase(model.begin() + at);
            }
            break;
        case 4:
            if (!model.empty()) {
                EXPECT_NE(list.RemoveHead(), nullptr);
                model.erase(model.begin());
            }
            break;
        default:
            if (!model.empty()) {
                EXPECT_NE(list.Remove(list.GetTail()), nullptr);
                model.pop_back();
            }
            break;
        }
        ExpectListIs(list, model);
        ASSERT_EQ(Node::live, static_cast<int>(model.size()));
        if (HasFailure()) {
            break;
        }
    }
}

TEST_F(ListTest, MovedListTakesTheEntriesAndLeavesTheSourceEmpty) {
    LList<Node> source;
    source.AddTail(Make(1));
    source.AddTail(Make(2));
    LList<Node> moved(std::move(source));
    ExpectListIs(moved, {1, 2});
    ExpectListIs(source, {});

    LList<Node> target;
    target.AddTail(Make(9));
    target = std::move(moved); // the target's own entry is freed
    ExpectListIs(target, {1, 2});
    ExpectListIs(moved, {});
    EXPECT_EQ(Node::live, 2);

    // Both lists remain usable after the move.
    source.AddTail(Make(3));
    target.AddTail(Make(4));
    ExpectListIs(source, {3});
    ExpectListIs(target, {1, 2, 4});
}

TEST_F(ListTest, CopyingALinkedEntryGivesAnUnlinkedValue) {
    LList<Node> list;
    list.AddTail(Make(1));
    Node* middle = list.AddTail(Make(2));
    list.AddTail(Make(3));

    auto copy = std::make_unique<Node>(*middle);
    EXPECT_EQ(copy->value, 2);
    EXPECT_EQ(copy->GetNext(), nullptr);

    // Assigning a value over a linked entry must not rewrite its link.
    Node const loose(7);
    *middle = loose;
    ExpectListIs(list, {1, 7, 3});

    LList<Node> other;
    other.AddTail(std::move(copy));
    ExpectListIs(other, {2});
    ExpectListIs(list, {1, 7, 3});
}

} // namespace
