// Hash table and ordered map against the standard containers, in one run.
//   hash: add, find and delete 1,000,000 keys of 8 to 24 bytes with each
//         selectable hash function; std::unordered_map<std::string_view,
//         void*> is the reference.
//   btree: insert 100,000 keys in ascending and in random order in both
//         modes, then walk them in order; std::map is the reference.
// Prints operations per second and the time per operation relative to the
// reference (1.00 = as fast; 1.50 = takes half as long again).
#include <zel/containers.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

template <typename F>
double seconds(F &&f)
{
    auto start = Clock::now();
    f();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::vector<std::string> random_keys(size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> len(8, 24), ch('a', 'z');
    std::vector<std::string> keys(n);
    for (size_t i = 0; i < n; ++i) {
        // A counter suffix keeps the keys distinct.
        std::string k = std::to_string(i);
        while (int(k.size()) < len(rng))
            k.insert(k.begin(), char(ch(rng)));
        keys[i] = std::move(k);
    }
    return keys;
}

sPChar pc(const std::string &s)
{
    return sPChar{const_cast<char *>(s.data()), int32_t(s.size())};
}

void row(const char *what, size_t ops, double secs, double reference_secs)
{
    std::printf("  %-34s %12.0f ops/s  %8.1f ns/op  x%.2f\n", what, double(ops) / secs, secs * 1e9 / double(ops),
                reference_secs > 0 ? secs / reference_secs : 1.0);
}

struct Times {
    double add, find, del;
};

Times time_reference(const std::vector<std::string> &keys)
{
    std::unordered_map<std::string_view, void *> map;
    Times t{};
    t.add = seconds([&] {
        for (const std::string &k : keys)
            map.emplace(k, (void *)&k);
    });
    size_t found = 0;
    t.find = seconds([&] {
        for (const std::string &k : keys)
            found += map.find(k) != map.end();
    });
    t.del = seconds([&] {
        for (const std::string &k : keys)
            map.erase(k);
    });
    if (found != keys.size())
        std::printf("reference lost keys\n");
    return t;
}

Times time_hash(const std::vector<std::string> &keys, const char *name)
{
    void *h = nullptr;
    int err = 0;
    sZELHashParams p{0, {const_cast<char *>(name), int32_t(std::strlen(name))}, nullptr};
    zel_hash_open(&h, &p, &err);
    Times t{};
    t.add = seconds([&] {
        for (const std::string &k : keys) {
            sPChar key = pc(k);
            zel_hash_add(h, &key, (void *)&k, &err);
        }
    });
    size_t found = 0;
    t.find = seconds([&] {
        void *v;
        for (const std::string &k : keys) {
            sPChar key = pc(k);
            found += zel_hash_table_find(h, &key, &v, &err);
        }
    });
    t.del = seconds([&] {
        for (const std::string &k : keys) {
            sPChar key = pc(k);
            zel_hash_delete(h, &key, nullptr, &err);
        }
    });
    if (found != keys.size())
        std::printf("%s lost keys: %zu of %zu\n", name, found, keys.size());
    zel_hash_close(&h, &err);
    return t;
}

void bench_hash()
{
    const size_t n = 1000000;
    std::vector<std::string> keys = random_keys(n, 42);
    std::printf("hash table, %zu keys of 8 to 24 bytes\n", n);
    Times ref = time_reference(keys);
    row("std::unordered_map add", n, ref.add, ref.add);
    row("std::unordered_map find", n, ref.find, ref.find);
    row("std::unordered_map delete", n, ref.del, ref.del);
    for (const char *name : {"hashr_torek", "hash_phong", "hash_ejb"}) {
        Times t = time_hash(keys, name);
        std::string label = name;
        row((label + " add").c_str(), n, t.add, ref.add);
        row((label + " find").c_str(), n, t.find, ref.find);
        row((label + " delete").c_str(), n, t.del, ref.del);
    }
}

int byte_order(sPChar *key, sZELBtreeKeycb *node, int *result, int *)
{
    int c = std::memcmp(key->data, node->key, size_t(std::min(key->len, node->key_len)));
    if (c == 0)
        c = key->len - node->key_len;
    *result = c == 0 ? 1 : c < 0 ? 2 : 3;
    return 1;
}

void bench_btree()
{
    const size_t n = 100000;
    // Keys begin with one of 52 letters, so byte order spreads them over as
    // many first-byte partitions; with the caller's ordering they are one list.
    const char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    std::vector<std::string> ascending(n);
    for (size_t i = 0; i < n; ++i) {
        char k[16];
        std::snprintf(k, sizeof k, "%c%08zu", letters[i % 52], i);
        ascending[i] = k;
    }
    std::sort(ascending.begin(), ascending.end());
    std::vector<std::string> shuffled = ascending;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
    std::printf("ordered map, %zu keys over 52 first letters\n", n);
    for (const auto &[order, keys] : {std::pair{"ascending", &ascending}, std::pair{"random", &shuffled}}) {
        std::map<std::string_view, void *> map;
        double ref = seconds([&] {
            for (const std::string &k : *keys)
                map.emplace(k, (void *)&k);
        });
        std::printf(" %s order\n", order);
        row("std::map insert", n, ref, ref);
        for (int mode : {0, 1}) {
            void *t = nullptr;
            int err = 0;
            sZELBtreeParams p{0, 0, mode, nullptr, nullptr, byte_order};
            zel_btree_open(&t, &p, &err);
            if (keys == &shuffled)
                std::fprintf(stderr, "  (random-order insertion walks the list: this takes a while)\n");
            double insert = seconds([&] {
                for (const std::string &k : *keys) {
                    sPChar key = pc(k);
                    zel_btree_insert_item(t, &key, (void *)&k, &err);
                }
            });
            size_t walked = 0;
            double walk = seconds([&] {
                sZELBtreeKeycb *node = nullptr;
                for (int ok = zel_btree_find_first_node(t, &node, &err); ok; ok = zel_btree_find_next_node(t, &node, &err))
                    ++walked;
            });
            row(mode == 0 ? "btree insert, byte order" : "btree insert, caller's order", n, insert, ref);
            row(mode == 0 ? "btree walk, byte order" : "btree walk, caller's order", walked, walk, 0);
            zel_btree_close(&t, &err);
        }
    }
}

} // namespace

int main()
{
    bench_hash();
    bench_btree();
}
