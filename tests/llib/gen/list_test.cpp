// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/list.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
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

// Order by walking the links, head, tail (and nothing after it), count and emptiness.
void ExpectListIs(LList<Node> const& list, std::vector<int> const& model) {
    std::vector<int> walked;
    for (Node const& n : list) {
        walked.push_back(n.value);
        if (walked.size() > model.size()) {
            break; // a cycle: stop before the walk runs forever
        }
    }
    EXPECT_EQ(walked, model);
    EXPECT_EQ(list.GetCount(), model.size());
    EXPECT_EQ(list.IsEmpty(), model.empty());
    EXPECT_EQ(list.GetHead() ? list.GetHead()->value : -999, model.empty() ? -999 : model.front());
    EXPECT_EQ(list.GetTail() ? list.GetTail()->value : -999, model.empty() ? -999 : model.back());
    EXPECT_TRUE(model.empty() || list.GetTail()->GetNext() == nullptr);
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

TEST_F(ListTest, RandomEditSequencesMatchAnArrayModel) {
    std::mt19937 random(12345);
    LList<Node> list;
    std::vector<int> model;
    int next = 0;
    for (int step = 0; step < 2000 && !HasFailure(); ++step) {
        std::size_t const at = model.empty() ? 0 : random() % model.size();
        std::unique_ptr<Node> removed;
        switch (random() % 6) {
        case 0:
            list.AddTail(Make(next));
            model.push_back(next++);
            break;
        case 1:
            list.AddHead(Make(next));
            model.insert(model.begin(), next++);
            break;
        case 2: // after nothing means at the head
            list.InsertAfter(model.empty() ? nullptr : NodeAt(list, at), Make(next));
            model.insert(model.empty() ? model.begin() : model.begin() + at + 1, next++);
            break;
        case 3:
            removed = model.empty() ? list.RemoveHead() : list.Remove(NodeAt(list, at));
            if (!model.empty()) {
                model.erase(model.begin() + at);
            }
            break;
        case 4:
            removed = list.RemoveHead();
            if (!model.empty()) {
                model.erase(model.begin());
            }
            break;
        default:
            removed = list.Remove(list.GetTail());
            if (!model.empty()) {
                model.pop_back();
            }
            break;
        }
        EXPECT_EQ(removed != nullptr && removed->GetNext() != nullptr, false);
        removed.reset();
        ExpectListIs(list, model);
        ASSERT_EQ(Node::live, static_cast<int>(model.size()));
    }
    list.Clear();
    ExpectListIs(list, {});
    EXPECT_EQ(Node::live, 0);
}

TEST_F(ListTest, ForeignRemoveChangesNothingAndAMoveLeavesTheSourceEmpty) {
    LList<Node> list;
    LList<Node> other;
    list.AddTail(Make(1));
    list.AddTail(Make(2));
    Node* foreign = other.AddTail(Make(3));
    EXPECT_EQ(list.Remove(foreign), nullptr);
    EXPECT_EQ(list.Remove(nullptr), nullptr);
    ExpectListIs(list, {1, 2});
    ExpectListIs(other, {3});

    LList<Node> moved(std::move(list));
    ExpectListIs(list, {});
    other = std::move(moved); // the target's own entry is freed
    ExpectListIs(other, {1, 2});
    ExpectListIs(moved, {});
    EXPECT_EQ(Node::live, 2);
    list.AddTail(Make(3));
    other.AddTail(Make(4));
    ExpectListIs(list, {3});
    ExpectListIs(other, {1, 2, 4});
}

TEST_F(ListTest, CopyingALinkedEntryGivesAnUnlinkedValue) {
    LList<Node> list;
    list.AddTail(Make(1));
    Node* middle = list.AddTail(Make(2));
    list.AddTail(Make(3));
    auto copy = std::make_unique<Node>(*middle);
    EXPECT_EQ(copy->GetNext(), nullptr);
    *middle = Node(7); // assigning a value over a linked entry must not rewrite its link
    ExpectListIs(list, {1, 7, 3});
    LList<Node> other;
    other.AddTail(std::move(copy));
    ExpectListIs(other, {2});
    ExpectListIs(list, {1, 7, 3});
}

} // namespace
