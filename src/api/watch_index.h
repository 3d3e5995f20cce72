// Finds the watches that a message satisfies without looking at the others.
// The client's receive window and the hub server both match through it, so
// that the rule is written once.
//
// A watch is a list of keys (tag, value). A message satisfies it when it has
// every key's field and, for a key with a value, exactly that value as the
// field's FIRST value; an empty value accepts any value, but not a missing
// field. A watch without keys accepts every message.
//
// Each watch is filed on one shelf: under its first key with a value, by that
// value; under its first key's tag when all its values are empty; on the
// unconditional shelf when it has no keys. A message visits only the shelves
// of the tags it carries (for each, the any-value shelf and the shelf of the
// field's first value) and tests only the watches it finds there. Every shelf
// keeps its watches in the order they were added, so that merging the shelves
// gives the found watches newest first.
//
// No lock of its own: the owner's lock, if any, covers every call.
#pragma once

#include <zel/message.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <iterator>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "containers/text_map.h"
#include "message/fields.h"

namespace zel {

struct WatchKey {
    int tag;
    std::string value; // empty: any value, but the field must be there
    bool operator==(const WatchKey &) const = default;
};
using WatchKeys = std::vector<WatchKey>;

// Whether `m` satisfies every one of `keys`.
bool satisfies(const vartocb *m, const WatchKeys &keys);

// The key a watch is filed under: its first key with a value, else its first
// key; keys.size() when it has none.
size_t anchor_of(const WatchKeys &keys);

// `Payload` is what the owner keeps with each watch: a receiver's watch, a
// client's number.
template <typename Payload>
class WatchIndex {
public:
    class Watch;

private:
    using Shelf = std::list<Watch *>; // oldest first

public:
    class Watch {
    public:
        Watch(WatchKeys keys, Payload payload) : keys(std::move(keys)), payload(std::move(payload)) {}
        const WatchKeys keys;
        Payload payload;
        // Taken out of the index while a walk was open: still readable until
        // the last walk closes, and never found again.
        bool removed() const { return removed_; }

    private:
        friend class WatchIndex;
        uint64_t age_ = 0; // larger: added later
        typename std::list<Watch>::iterator in_all_;
        typename Shelf::iterator on_shelf_;
        bool removed_ = false;
    };

    // The watches one message satisfies, newest first, found when the walk
    // opens. While any walk is open, the owners of the found watches may run
    // code that adds and removes watches: a watch added meanwhile is not in
    // the list, and one removed meanwhile stays readable (removed() tells).
    class Walk {
    public:
        Walk(WatchIndex &index, const vartocb *m) : index_(index), found_(index.open_walk())
        {
            index_.find(m, found_);
        }
        ~Walk() { index_.close_walk(); }
        Walk(const Walk &) = delete;
        Walk &operator=(const Walk &) = delete;
        const std::vector<Watch *> &found() const { return found_; }

    private:
        WatchIndex &index_;
        std::vector<Watch *> &found_;
    };

    WatchIndex() = default;
    WatchIndex(const WatchIndex &) = delete;
    WatchIndex &operator=(const WatchIndex &) = delete;

    // Files a new watch, the newest. The pointer stays valid until remove().
    Watch *add(WatchKeys keys, Payload payload)
    {
        Watch &watch = all_.emplace_back(std::move(keys), std::move(payload));
        watch.age_ = ++added_;
        watch.in_all_ = std::prev(all_.end());
        Shelf &shelf = shelf_for(watch.keys);
        watch.on_shelf_ = shelf.insert(shelf.end(), &watch);
        return &watch;
    }

    // Takes the watch out in constant time. It is freed at once, or, while a
    // walk is open, when the last walk closes.
    void remove(Watch *watch)
    {
        unshelve(*watch);
        if (walks_ == 0) {
            all_.erase(watch->in_all_);
            return;
        }
        watch->removed_ = true;
        retired_.splice(retired_.end(), all_, watch->in_all_);
    }

    // Calls `visit(Watch &)` for every watch, newest first. `visit` must not
    // remove watches; one it adds is not visited.
    template <typename Visit>
    void for_each_newest_first(Visit &&visit)
    {
        for (auto at = all_.rbegin(); at != all_.rend(); ++at)
            visit(*at);
    }

private:
    struct Anchor {
        Shelf any_value;
        TextMap<Shelf> by_value;
        bool empty() const { return any_value.empty() && by_value.empty(); }
    };
    // The next watch to take from one shelf the message reaches, and where
    // that shelf ends.
    struct Head {
        typename Shelf::const_reverse_iterator next, end;
    };

    Shelf &shelf_for(const WatchKeys &keys)
    {
        size_t at = anchor_of(keys);
        if (at == keys.size())
            return unconditional_;
        const WatchKey &key = keys[at];
        Anchor &anchor = anchors_[key.tag];
        return key.value.empty() ? anchor.any_value : anchor.by_value[key.value];
    }

    // Takes the watch off its shelf, and drops shelves and anchors that
    // become empty so that messages do not keep visiting them.
    void unshelve(const Watch &watch)
    {
        size_t at = anchor_of(watch.keys);
        if (at == watch.keys.size()) {
            unconditional_.erase(watch.on_shelf_);
            return;
        }
        const WatchKey &key = watch.keys[at];
        auto anchor = anchors_.find(key.tag);
        if (key.value.empty()) {
            anchor->second.any_value.erase(watch.on_shelf_);
        } else {
            auto shelf = anchor->second.by_value.find(key.value);
            shelf->second.erase(watch.on_shelf_);
            if (shelf->second.empty())
                anchor->second.by_value.erase(shelf);
        }
        if (anchor->second.empty())
            anchors_.erase(anchor);
    }

    void find(const vartocb *m, std::vector<Watch *> &found)
    {
        found.clear();
        heads_.clear();
        reach(unconditional_);
        // Through whichever is shorter: the anchored tags, or the message's.
        if (anchors_.size() <= size_t(m->tag_count)) {
            for (const auto &[tag, anchor] : anchors_)
                reach(tag, anchor, m);
        } else {
            for (int i = 0; i < m->tag_count; ++i)
                if (auto anchor = anchors_.find(m->tags[i]); anchor != anchors_.end())
                    reach(anchor->first, anchor->second, m);
        }
        // Each shelf is oldest first: taking the newest of the shelves' last
        // watches each time merges them newest first.
        auto newer_on_top = [](const Head &a, const Head &b) { return (*a.next)->age_ < (*b.next)->age_; };
        std::make_heap(heads_.begin(), heads_.end(), newer_on_top);
        while (!heads_.empty()) {
            std::pop_heap(heads_.begin(), heads_.end(), newer_on_top);
            Head &head = heads_.back();
            Watch *watch = *head.next;
            if (satisfies(m, watch->keys))
                found.push_back(watch);
            if (++head.next == head.end)
                heads_.pop_back();
            else
                std::push_heap(heads_.begin(), heads_.end(), newer_on_top);
        }
    }

    void reach(const Shelf &shelf)
    {
        if (!shelf.empty())
            heads_.push_back({shelf.crbegin(), shelf.crend()});
    }

    void reach(int tag, const Anchor &anchor, const vartocb *m)
    {
        const sVartoItem *item = field::first_item(m, tag);
        if (!item)
            return;
        reach(anchor.any_value);
        if (anchor.by_value.empty())
            return; // no value to hash for
        auto shelf = anchor.by_value.find(std::string_view(item->data, size_t(item->len)));
        if (shelf != anchor.by_value.end())
            reach(shelf->second);
    }

    std::vector<Watch *> &open_walk()
    {
        if (walks_ == found_lists_.size())
            found_lists_.emplace_back(); // a deque: the open walks' lists stay put
        return found_lists_[walks_++];
    }

    void close_walk()
    {
        found_lists_[--walks_].clear();
        if (walks_ == 0)
            retired_.clear();
    }

    std::list<Watch> all_;                 // oldest first
    std::list<Watch> retired_;             // removed while a walk was open
    std::unordered_map<int, Anchor> anchors_; // by the tag of the key watches are filed under
    Shelf unconditional_;                  // watches without keys
    uint64_t added_ = 0;
    std::vector<Head> heads_;              // of the message being matched
    std::deque<std::vector<Watch *>> found_lists_; // one per open walk, reused
    size_t walks_ = 0;
};

} // namespace zel
