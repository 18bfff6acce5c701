#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>

#include "ip/IPAddressv4.h"

namespace morvane::ip {

/// The addresses of an IPv4 network, ascending, made when they are asked for: "10.0.0.0/8"
/// counts 16,777,216 entries and holds none of them. Counting, iterating and indexing behave
/// as for a complete list.
class IPAddressv4List {
public:
    class iterator {
    public:
        using iterator_concept = std::random_access_iterator_tag;
        using iterator_category = std::input_iterator_tag;
        using value_type = IPAddressv4;
        using difference_type = int64_t;
        using reference = IPAddressv4;

        iterator() = default;
        IPAddressv4 operator*() const { return (*list_)[index_]; }
        IPAddressv4 operator[](difference_type n) const { return (*list_)[index_ + n]; }
        iterator& operator++() { return ++index_, *this; }
        iterator operator++(int) { return iterator(list_, index_++); }
        iterator& operator--() { return --index_, *this; }
        iterator operator--(int) { return iterator(list_, index_--); }
        iterator& operator+=(difference_type n) { return index_ += n, *this; }
        iterator& operator-=(difference_type n) { return index_ -= n, *this; }
        friend iterator operator+(iterator it, difference_type n) { return it += n; }
        friend iterator operator+(difference_type n, iterator it) { return it += n; }
        friend iterator operator-(iterator it, difference_type n) { return it -= n; }
        friend difference_type operator-(const iterator& a, const iterator& b) {
            return a.index_ - b.index_;
        }
        friend bool operator==(const iterator& a, const iterator& b) {
            return a.index_ == b.index_;
        }
        friend std::strong_ordering operator<=>(const iterator& a, const iterator& b) {
            return a.index_ <=> b.index_;
        }

    private:
        friend class IPAddressv4List;
        iterator(const IPAddressv4List* list, int64_t index) : list_(list), index_(index) {}

        const IPAddressv4List* list_ = nullptr;
        int64_t index_ = 0;
    };

    /// No addresses.
    IPAddressv4List() = default;
    /// `count` addresses from the integer `first` up.
    IPAddressv4List(uint32_t first, int64_t count);
    /// Exactly one address, kept as it was built.
    explicit IPAddressv4List(IPAddressv4 only);

    int64_t count() const { return count_; }
    bool empty() const { return count_ == 0; }
    /// Throws std::out_of_range outside [0, count).
    IPAddressv4 operator[](int64_t index) const;
    IPAddressv4 front() const { return (*this)[0]; }
    IPAddressv4 back() const { return (*this)[count_ - 1]; }
    iterator begin() const { return iterator(this, 0); }
    iterator end() const { return iterator(this, count_); }

private:
    uint32_t first_ = 0;
    int64_t count_ = 0;
    std::optional<IPAddressv4> only_;
};

static_assert(std::random_access_iterator<IPAddressv4List::iterator>);

}  // namespace morvane::ip
