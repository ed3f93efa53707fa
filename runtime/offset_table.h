// The state-flag offsets of a handle, by field address: ordered, so that a freed block can drop
// every entry that lies inside it. A tracking decode records two or three per array element, so
// the table is kept compact: sorted runs of up to 256 entries (16 bytes each) under an ordered
// index of their first addresses, about 16 bytes an entry where a tree node per entry took 64.
// Entries added in address order (as a decode adds them) fill each run before the next starts.
//
// Every operation either completes or, when an allocation throws, leaves the table with the
// entries it had (a split may be done without the new entry in it): the caller's guard turns
// the throw into error 12.
#ifndef MGX_RUNTIME_OFFSET_TABLE_H
#define MGX_RUNTIME_OFFSET_TABLE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <vector>

namespace mgx {

class OffsetTable {
public:
    using Key = uintptr_t;

    bool empty() const { return size_ == 0; }
    size_t size() const { return size_; }

    // The offset recorded for k, or null.
    const int64_t *find(Key k) const {
        auto run = run_for(k);
        if (run == runs_.end()) return nullptr;
        auto e = lower(run->second, k);
        return e != run->second.end() && e->key == k ? &e->value : nullptr;
    }

    void insert_or_assign(Key k, int64_t value) {
        auto run = run_for(k);
        if (run == runs_.end()) return start_run(k, value);
        Run *r = &run->second;
        auto e = lower(*r, k);
        if (e != r->end() && e->key == k) {
            e->value = value;
            return;
        }
        if (r->size() == max_run) {
            // Past the end of a full run (and before the next): a new run, so that runs filled
            // in order stay full.
            if (e == r->end()) return start_run(k, value);
            run = split(run);
            if (k >= run->first) r = &run->second;
            else r = &std::prev(run)->second, run = std::prev(run);
            e = lower(*r, k);
        }
        const bool first = e == r->begin();
        r->insert(e, Entry{k, value});
        ++size_;
        if (first) rekey(run);
    }

    void erase(Key k) {
        auto run = run_for(k);
        if (run == runs_.end()) return;
        auto e = lower(run->second, k);
        if (e == run->second.end() || e->key != k) return;
        const bool first = e == run->second.begin();
        run->second.erase(e);
        --size_;
        settle(run, first);
    }

    // Drops every entry in [lo, hi).
    void erase_range(Key lo, Key hi) {
        for (auto run = run_for(lo); run != runs_.end() && run->first < hi;) {
            Run &r = run->second;
            auto from = lower(r, lo), to = lower(r, hi);
            const bool first = from == r.begin() && from != to;
            size_ -= static_cast<size_t>(to - from);
            r.erase(from, to);
            auto next = std::next(run);
            settle(run, first);
            run = next;
        }
    }

private:
    struct Entry {
        Key key;
        int64_t value;
    };
    using Run = std::vector<Entry>;
    using Runs = std::map<Key, Run>; // by the first key of each run; no run is empty
    static constexpr size_t max_run = 256;

    static Run::iterator lower(Run &r, Key k) {
        return std::lower_bound(r.begin(), r.end(), k, [](const Entry &e, Key x) { return e.key < x; });
    }
    static Run::const_iterator lower(const Run &r, Key k) {
        return std::lower_bound(r.begin(), r.end(), k, [](const Entry &e, Key x) { return e.key < x; });
    }
    // The run that holds k or would take it: the last starting at or before k, else the first.
    Runs::iterator run_for(Key k) {
        auto it = runs_.upper_bound(k);
        return it == runs_.begin() ? it : std::prev(it);
    }
    Runs::const_iterator run_for(Key k) const {
        auto it = runs_.upper_bound(k);
        return it == runs_.begin() ? it : std::prev(it);
    }
    void start_run(Key k, int64_t value) {
        Run r;
        r.reserve(16);
        r.push_back(Entry{k, value});
        runs_.emplace(k, std::move(r));
        ++size_;
    }
    // Moves the upper half of a full run into a run of its own, which is returned.
    Runs::iterator split(Runs::iterator run) {
        Run &r = run->second;
        Run upper;
        upper.reserve(max_run);
        upper.assign(r.begin() + max_run / 2, r.end());
        auto added = runs_.emplace_hint(std::next(run), upper.front().key, std::move(upper));
        r.resize(max_run / 2);
        return added;
    }
    // After entries left a run: an empty run goes, one whose first entry went is indexed anew.
    void settle(Runs::iterator run, bool first_changed) {
        if (run->second.empty()) runs_.erase(run);
        else if (first_changed) rekey(run);
    }
    // Indexes a run by its first key again (a node moved, nothing allocated).
    void rekey(Runs::iterator run) {
        if (run->first == run->second.front().key) return;
        auto node = runs_.extract(run);
        node.key() = node.mapped().front().key;
        runs_.insert(std::move(node));
    }

    Runs runs_;
    size_t size_ = 0;
};

} // namespace mgx

#endif
