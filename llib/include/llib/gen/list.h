// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LList<T>: an intrusive, singly linked, owning list. T derives from LListLink<T>, which holds
// the link to the next entry, so putting an object on a list allocates nothing and an effect
// chain or a list of preserved chunks is a plain chain of objects. The list owns its entries:
// they are handed in and out as std::unique_ptr and deleted with the list. Appending is O(1)
// (the tail is kept); removing an arbitrary entry walks from the head. Not thread-safe.

#include <cstddef>
#include <iterator>
#include <memory>

template <class T>
class LList;

template <class T>
class LListLink {
public:
    [[nodiscard]] T* GetNext() const { return m_next; }

protected:
    LListLink() = default;
    ~LListLink() = default;
    // A copied object starts unlinked: links belong to the list, not to the value.
    LListLink(LListLink const&) {}
    LListLink& operator=(LListLink const&) { return *this; }

private:
    friend class LList<T>;
    T* m_next = nullptr;
};

template <class T>
class LList {
public:
    LList() = default;
    ~LList() { Clear(); }
    LList(LList const&) = delete;
    LList& operator=(LList const&) = delete;
    LList(LList&& other) noexcept { Swap(other); }
    LList& operator=(LList&& other) noexcept {
        if (this != &other) {
            Clear();
            Swap(other);
        }
        return *this;
    }

    [[nodiscard]] T* GetHead() const { return m_head; }
    [[nodiscard]] T* GetTail() const { return m_tail; }
    [[nodiscard]] std::size_t GetCount() const { return m_count; }
    [[nodiscard]] bool IsEmpty() const { return m_head == nullptr; }

    T* AddTail(std::unique_ptr<T> item) {
        T* const p = item.release();
        Link(p).m_next = nullptr;
        if (m_tail != nullptr) {
            Link(m_tail).m_next = p;
        } else {
            m_head = p;
        }
        m_tail = p;
        ++m_count;
        return p;
    }

    T* AddHead(std::unique_ptr<T> item) {
        T* const p = item.release();
        Link(p).m_next = m_head;
        m_head = p;
        if (m_tail == nullptr) {
            m_tail = p;
        }
        ++m_count;
        return p;
    }

    // Inserts after `position`, or at the head when `position` is null.
    T* InsertAfter(T* position, std::unique_ptr<T> item) {
        if (position == nullptr) {
            return AddHead(std::move(item));
        }
        T* const p = item.release();
        Link(p).m_next = Link(position).m_next;
        Link(position).m_next = p;
        if (m_tail == position) {
            m_tail = p;
        }
        ++m_count;
        return p;
    }

    std::unique_ptr<T> RemoveHead() {
        T* const p = m_head;
        if (p == nullptr) {
            return nullptr;
        }
        m_head = Link(p).m_next;
        if (m_head == nullptr) {
            m_tail = nullptr;
        }
        Link(p).m_next = nullptr;
        --m_count;
        return std::unique_ptr<T>(p);
    }

    // Unlinks `item` and hands it back; null when it is not on this list.
    std::unique_ptr<T> Remove(T* item) {
        T* previous = nullptr;
        for (T* p = m_head; p != nullptr; previous = p, p = Link(p).m_next) {
            if (p != item) {
                continue;
            }
            if (previous == nullptr) {
                m_head = Link(p).m_next;
            } else {
                Link(previous).m_next = Link(p).m_next;
            }
            if (m_tail == p) {
                m_tail = previous;
            }
            Link(p).m_next = nullptr;
            --m_count;
            return std::unique_ptr<T>(p);
        }
        return nullptr;
    }

    void Clear() {
        while (m_head != nullptr) {
            (void)RemoveHead();
        }
    }

    void Swap(LList& other) noexcept {
        std::swap(m_head, other.m_head);
        std::swap(m_tail, other.m_tail);
        std::swap(m_count, other.m_count);
    }

    template <class V>
    class Iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = V;
        using difference_type = std::ptrdiff_t;
        using pointer = V*;
        using reference = V&;
        Iterator() = default;
        explicit Iterator(V* p) : m_p(p) {}
        reference operator*() const { return *m_p; }
        pointer operator->() const { return m_p; }
        Iterator& operator++() {
            m_p = m_p->GetNext();
            return *this;
        }
        Iterator operator++(int) {
            Iterator old = *this;
            ++*this;
            return old;
        }
        bool operator==(Iterator const&) const = default;

    private:
        V* m_p = nullptr;
    };

    Iterator<T> begin() { return Iterator<T>(m_head); }
    Iterator<T> end() { return Iterator<T>(); }
    Iterator<T const> begin() const { return Iterator<T const>(m_head); }
    Iterator<T const> end() const { return Iterator<T const>(); }

private:
    static LListLink<T>& Link(T* p) { return *p; }

    T* m_head = nullptr;
    T* m_tail = nullptr;
    std::size_t m_count = 0;
};
