// Ordered map: a hash table for exact lookup and one doubly linked list in key
// order. In byte order (mode 0) the list is split into 128 runs by the key's
// first byte, so an insertion walks one run; with the caller's ordering the
// tail is tried first, so ascending insertion costs one comparison.
// Single-threaded: callers use a tree from one thread or under their lock.
#include <zel/containers.h>

#include <cstring>

#include "platform/detail_slot.h"
#include "platform/memory.h"

namespace {

using Node = sZELBtreeKeycb;

constexpr int partition_count = 128;

struct Partition {
    uint32_t count;
    Node *first;
    Node *last;
};

struct Tree {
    void *index;  // key -> Node *
    int32_t user1, user2;
    int32_t mode;
    void *user3, *user4;
    Node *head, *tail;
    sZELBtreeMeterscb meters;
    Partition partitions[partition_count];
    zel_btree_compare_fn compare;
};

// This family reports success as detail 1.
int succeed(int *err)
{
    *err = 1;
    return 1;
}

int fail(int *err, int detail)
{
    *err = detail;
    return 0;
}

bool valid_key(const sPChar *key)
{
    return key && key->data && key->len > 0;
}

int first_byte(const char *key)
{
    return static_cast<unsigned char>(key[0]);
}

sPChar key_of(const Node *n)
{
    return sPChar{n->key, n->key_len};
}

// strcmp order of two keys: below, equal or above zero.
int byte_order(sPChar a, sPChar b)
{
    int ignored;
    return pchar_compare_match(&a, &b, &ignored);
}

// The caller's ordering of `key` against a node: 1 equal, 2 before, 3 after;
// anything else is reported as 0.
int caller_order(const Tree *t, sPChar key, Node *n)
{
    int result = 0, ignored = 0;
    if (!t->compare(&key, n, &result, &ignored))
        return 0;
    return result >= 1 && result <= 3 ? result : 0;
}

Node *lookup(Tree *t, sPChar *key)
{
    void *found = nullptr;
    int ignored;
    return zel_hash_table_find(t->index, key, &found, &ignored) ? static_cast<Node *>(found) : nullptr;
}

// Links `n` after `prev` (at the head when `prev` is null).
void link_after(Tree *t, Node *n, Node *prev)
{
    n->prev = prev;
    n->next = prev ? prev->next : t->head;
    (n->next ? n->next->prev : t->tail) = n;
    (prev ? prev->next : t->head) = n;
}

void unlink(Tree *t, Node *n)
{
    (n->prev ? n->prev->next : t->head) = n->next;
    (n->next ? n->next->prev : t->tail) = n->prev;
}

// The last node of the nearest non-empty partition before `p`, or null.
Node *last_before_partition(Tree *t, int p)
{
    while (--p >= 0)
        if (t->partitions[p].count)
            return t->partitions[p].last;
    return nullptr;
}

void insert_by_bytes(Tree *t, Node *n)
{
    Partition &part = t->partitions[first_byte(n->key)];
    sPChar key = key_of(n);
    Node *prev;
    if (part.count == 0) {
        prev = last_before_partition(t, first_byte(n->key));
        part.first = part.last = n;
    } else if (byte_order(key, key_of(part.last)) < 1) {
        Node *at = part.first;
        while (at != part.last && byte_order(key_of(at), key) <= 0)
            at = at->next;
        if (byte_order(key_of(at), key) > 0) {
            prev = at->prev;
            if (at == part.first)
                part.first = n;
        } else {
            prev = part.last;
            part.last = n;
        }
    } else {
        prev = part.last;
        part.last = n;
    }
    link_after(t, n, prev);
    ++part.count;
}

// Places `n` by the caller's ordering; answers the detail of a refusal or 0.
int insert_by_caller(Tree *t, Node *n)
{
    sPChar key = key_of(n);
    if (!t->head) {
        link_after(t, n, nullptr);
        return 0;
    }
    int order = caller_order(t, key, t->tail);
    if (order == 3) {
        link_after(t, n, t->tail);
        return 0;
    }
    if (order != 2)
        return order == 1 ? 9 : 5;
    for (Node *at = t->head; at; at = at->next) {
        order = caller_order(t, key, at);
        if (order == 2) {
            link_after(t, n, at->prev);
            return 0;
        }
        if (order != 3)
            return order == 1 ? 9 : 5;
    }
    link_after(t, n, t->tail); // an ordering that contradicts itself
    return 0;
}

void remove_from_partition(Tree *t, Node *n)
{
    Partition &part = t->partitions[first_byte(n->key)];
    if (--part.count == 0) {
        part.first = part.last = nullptr;
        return;
    }
    if (part.first == n)
        part.first = n->next;
    if (part.last == n)
        part.last = n->prev;
}

// Whether `n` orders at or after `key`.
bool not_less_than(Tree *t, Node *n, sPChar key)
{
    if (t->mode == 0)
        return byte_order(key_of(n), key) >= 0;
    int order = caller_order(t, key, n);
    return order == 1 || order == 2;
}

// The first node not less than `key`, or null.
Node *lower_bound(Tree *t, sPChar key)
{
    Node *n = t->head;
    if (t->mode == 0) {
        int p = first_byte(key.data);
        if (p >= partition_count)
            return nullptr;
        Node *before = last_before_partition(t, p);
        n = before ? before->next : t->head;
    }
    while (n && !not_less_than(t, n, key))
        n = n->next;
    return n;
}

int answer(const Node *n, sPChar *key_out, void **value_out, int *err)
{
    if (!n)
        return fail(err, 2);
    if (key_out)
        *key_out = key_of(n);
    if (value_out)
        *value_out = n->value;
    return succeed(err);
}

void free_nodes(Tree *t)
{
    int ignored;
    for (Node *n = t->head; n;) {
        Node *next = n->next;
        zel::mem_free(&n, &ignored);
        n = next;
    }
    t->head = t->tail = nullptr;
    std::memset(t->partitions, 0, sizeof t->partitions);
    t->meters.items = 0;
}

} // namespace

int zel_btree_open(void **handle, sZELBtreeParams *p, int *err)
{
    err = zel::detail_slot(err);
    if (!handle || !p || (p->mode != 0 && !p->compare))
        return fail(err, 4);
    if (*handle)
        return fail(err, 9);
    Tree *t = nullptr;
    if (!zel::mem_alloc(&t, sizeof(Tree), err))
        return fail(err, 4);
    sZELHashParams index{4096, {const_cast<char *>("hashr_torek"), 11}, nullptr};
    if (!zel_hash_open(&t->index, &index, err)) {
        zel::mem_free(&t, err);
        return fail(err, 10);
    }
    t->user1 = p->user1;
    t->user2 = p->user2;
    t->mode = p->mode;
    t->user3 = p->user3;
    t->user4 = p->user4;
    t->compare = p->compare;
    *handle = t;
    return succeed(err);
}

int zel_btree_close(void **handle, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = handle ? static_cast<Tree *>(*handle) : nullptr;
    if (!t)
        return fail(err, 4);
    free_nodes(t);
    int ignored;
    zel_hash_close(&t->index, &ignored);
    zel::mem_free(&t, &ignored);
    *handle = nullptr;
    return succeed(err);
}

int zel_btree_delete_all(void *tree, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t)
        return fail(err, 4);
    free_nodes(t);
    int ignored;
    if (!zel_hash_clear(t->index, &ignored))
        return fail(err, 10);
    return succeed(err);
}

int zel_btree_insert_item(void *tree, sPChar *key, void *value, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !value || !valid_key(key) || (t->mode == 0 && first_byte(key->data) >= partition_count))
        return fail(err, 4);
    if (lookup(t, key)) {
        ++t->meters.duplicates;
        return fail(err, 9);
    }
    Node *n = nullptr;
    if (!zel::mem_alloc(&n, sizeof(Node), err))
        return fail(err, 4);
    *n = Node{key->data, key->len, value, nullptr, nullptr};
    int refused = 0;
    if (t->mode == 0)
        insert_by_bytes(t, n);
    else
        refused = insert_by_caller(t, n);
    int ignored;
    if (refused || !zel_hash_add(t->index, key, n, &ignored)) {
        if (!refused) {
            unlink(t, n);
            if (t->mode == 0)
                remove_from_partition(t, n);
        }
        zel::mem_free(&n, &ignored);
        if (refused == 9)
            ++t->meters.duplicates;
        return fail(err, refused ? refused : 10);
    }
    ++t->meters.items;
    ++t->meters.inserts;
    return succeed(err);
}

int zel_btree_delete_item(void *tree, sPChar *key, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !valid_key(key))
        return fail(err, 4);
    Node *n = lookup(t, key);
    if (!n)
        return fail(err, 2);
    sPChar own = key_of(n);
    int ignored;
    if (!zel_hash_delete(t->index, &own, nullptr, &ignored))
        return fail(err, 10);
    if (t->mode == 0)
        remove_from_partition(t, n);
    unlink(t, n);
    if (value_out)
        *value_out = n->value;
    zel::mem_free(&n, &ignored);
    --t->meters.items;
    ++t->meters.deletes;
    return succeed(err);
}

int zel_btree_find_key(void *tree, sPChar *key, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !valid_key(key))
        return fail(err, 4);
    ++t->meters.finds;
    return answer(lookup(t, key), nullptr, value_out, err);
}

int zel_btree_find_first_key(void *tree, sPChar *key, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !key)
        return fail(err, 4);
    return answer(t->head, key, value_out, err);
}

int zel_btree_find_last_key(void *tree, sPChar *key, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !key)
        return fail(err, 4);
    return answer(t->tail, key, value_out, err);
}

int zel_btree_find_next_key(void *tree, sPChar *key, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !valid_key(key))
        return fail(err, 4);
    Node *n = lookup(t, key);
    return answer(n ? n->next : nullptr, key, value_out, err);
}

int zel_btree_find_prev_key(void *tree, sPChar *key, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !valid_key(key))
        return fail(err, 4);
    Node *n = lookup(t, key);
    return answer(n ? n->prev : nullptr, key, value_out, err);
}

int zel_btree_find_first_key_not_less_than(void *tree, sPChar *key, sPChar *found_key, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !valid_key(key))
        return fail(err, 4);
    return answer(lower_bound(t, *key), found_key, value_out, err);
}

int zel_btree_find_next_key_less_than(void *tree, sPChar *key, sPChar *found_key, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !valid_key(key))
        return fail(err, 4);
    Node *bound = lower_bound(t, *key);
    return answer(bound ? bound->prev : t->tail, found_key, value_out, err);
}

int zel_btree_find_first_node(void *tree, sZELBtreeKeycb **node, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !node)
        return fail(err, 4);
    *node = t->head;
    return *node ? succeed(err) : fail(err, 2);
}

int zel_btree_find_next_node(void *tree, sZELBtreeKeycb **node, int *err)
{
    err = zel::detail_slot(err);
    if (!tree || !node || !*node)
        return fail(err, 4);
    *node = (*node)->next;
    return *node ? succeed(err) : fail(err, 2);
}

int zel_btree_get_info(void *tree, sZELBtreeInfocb *out, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !out)
        return fail(err, 4);
    *out = sZELBtreeInfocb{t->user1, t->user2, t->mode, t->user3, t->user4, t->meters.items};
    return succeed(err);
}

int zel_btree_get_meters(void *tree, sZELBtreeMeterscb *out, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t || !out)
        return fail(err, 4);
    *out = t->meters;
    return succeed(err);
}

int zel_btree_reset_meters(void *tree, int *err)
{
    err = zel::detail_slot(err);
    Tree *t = static_cast<Tree *>(tree);
    if (!t)
        return fail(err, 4);
    t->meters = sZELBtreeMeterscb{t->meters.items, 0, 0, 0, 0};
    return succeed(err);
}
