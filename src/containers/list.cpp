// Linked list: (key, item) pairs in a singly linked chain with one cursor, so
// that delete, re-key and re-item act on the node an iteration last returned.
// Not locked: one thread at a time.
#include <zel/containers.h>

#include <cstring>

#include "platform/detail_slot.h"
#include "platform/memory.h"

using zel::mem_alloc;
using zel::mem_free;

namespace {

enum Detail { kOk = 0, kNullList = 1, kAlreadyOpen = 2, kNotFound = 4, kInvalid = 5, kFreeFailed = -1 };

struct Node {
    void *item;
    Node *next;
    sPChar key; // the caller's bytes, never copied
};

// A non-null cursor is always a live node of the chain and implies
// `iterating`; a null cursor while iterating makes the next step start at the
// head (that is how removing the head lets iteration go on).
struct List {
    int32_t iterating;
    Node *cursor;
    Node *head;
    Node *tail;
    bool cleared; // the nodes are gone: only closing is allowed
};

int fail(int *err, int detail)
{
    *err = detail;
    return 0;
}

int succeed(int *err)
{
    *err = kOk;
    return 1;
}

// The list behind a handle, or null (detail 1) when there is none or it was
// cleared.
List *usable(void *list, int *err)
{
    auto *l = static_cast<List *>(list);
    if (l && !l->cleared)
        return l;
    *err = kNullList;
    return nullptr;
}

bool valid_key(const sPChar *key) { return key && key->len >= 0 && (key->data || key->len == 0); }

bool same_key(const sPChar &a, const sPChar &b)
{
    return a.len == b.len && (a.len == 0 || std::memcmp(a.data, b.data, size_t(a.len)) == 0);
}

Node *first_with_key(Node *from, const sPChar &key)
{
    while (from && !same_key(from->key, key))
        from = from->next;
    return from;
}

Node *first_with_item(Node *from, const void *item)
{
    while (from && from->item != item)
        from = from->next;
    return from;
}

Node *predecessor(const List *l, const Node *node)
{
    Node *before = nullptr;
    for (Node *n = l->head; n != node; n = n->next)
        before = n;
    return before;
}

Node *after_cursor(const List *l) { return l->cursor ? l->cursor->next : l->head; }

// Copies a node's key and item to whichever outputs are given.
void copy_out(const Node *node, sPChar *key_out, void **item_out)
{
    if (key_out)
        *key_out = node->key;
    if (item_out)
        *item_out = node->item;
}

// Makes `node` the cursor and hands it out; a null node ends the iteration.
int step_to(List *l, Node *node, sPChar *key_out, void **item_out, int *err)
{
    l->cursor = node;
    l->iterating = node != nullptr;
    if (!node)
        return fail(err, kNotFound);
    copy_out(node, key_out, item_out);
    return succeed(err);
}

// Frees a chain of nodes; false when any free failed.
bool free_chain(Node *node)
{
    bool freed = true;
    while (node) {
        Node *next = node->next;
        int ignored;
        freed = mem_free(&node, &ignored) && freed;
        node = next;
    }
    return freed;
}

// Unlinks the cursor node and moves the cursor so that the next step of the
// iteration returns the node that followed it; removing the tail ends it.
void unlink_cursor(List *l)
{
    Node *node = l->cursor, *before = predecessor(l, node);
    (before ? before->next : l->head) = node->next;
    l->cursor = before;
    if (l->tail == node) {
        l->tail = before;
        l->cursor = nullptr;
        l->iterating = 0;
    }
}

// Links a new node in at the head or the tail; an allocation failure answers
// the allocator's detail.
int add(void *list, sPChar *key, void *item, bool at_head, int *err)
{
    List *l = usable(list, err);
    if (!l)
        return 0;
    if (!valid_key(key))
        return fail(err, kInvalid);
    Node *node = nullptr;
    if (!mem_alloc(&node, sizeof(Node), err))
        return 0;
    *node = Node{item, nullptr, *key};
    if (at_head) {
        node->next = l->head;
        l->head = node;
        if (!l->tail)
            l->tail = node;
    } else {
        (l->tail ? l->tail->next : l->head) = node;
        l->tail = node;
    }
    return succeed(err);
}

} // namespace

extern "C" {

int linklist_open(void **handle, long flag, int *err)
{
    err = zel::detail_slot(err);
    if (!handle)
        return fail(err, kInvalid);
    if (*handle)
        return fail(err, kAlreadyOpen);
    if (flag == 0)
        return fail(err, kInvalid);
    List *l = nullptr;
    if (!mem_alloc(&l, sizeof(List), err))
        return 0;
    *handle = l;
    return succeed(err);
}

int linklist_close(void **handle, int *err)
{
    err = zel::detail_slot(err);
    List *l = handle ? static_cast<List *>(*handle) : nullptr;
    if (!l)
        return fail(err, kNullList);
    bool freed = free_chain(l->head); // a cleared list has no chain left
    int ignored;
    freed = mem_free(&l, &ignored) && freed;
    *handle = nullptr;
    return freed ? succeed(err) : fail(err, kFreeFailed);
}

int list_add_node(void *list, sPChar *key, void *item, int *err)
{
    err = zel::detail_slot(err);
    return add(list, key, item, false, err);
}

int list_add_node_at_begin(void *list, sPChar *key, void *item, int *err)
{
    err = zel::detail_slot(err);
    return add(list, key, item, true, err);
}

int list_clear_nodes(void *list, int *err)
{
    err = zel::detail_slot(err);
    List *l = usable(list, err);
    if (!l)
        return 0;
    bool freed = free_chain(l->head);
    *l = List{.cleared = true};
    return freed ? succeed(err) : fail(err, kFreeFailed);
}

int list_find_node(void *list, sPChar *key_out, void *item, int *err)
{
    err = zel::detail_slot(err);
    List *l = usable(list, err);
    if (!l)
        return 0;
    if (!item)
        return fail(err, kInvalid);
    Node *node = first_with_item(l->head, item);
    if (!node)
        return fail(err, kNotFound);
    copy_out(node, key_out, nullptr);
    return succeed(err);
}

int list_first_node(void *list, sPChar *key_out, void **item_out, int *err)
{
    err = zel::detail_slot(err);
    List *l = usable(list, err);
    return l ? step_to(l, l->head, key_out, item_out, err) : 0;
}

int list_next_node(void *list, sPChar *key_out, void **item_out, int *err)
{
    err = zel::detail_slot(err);
    List *l = usable(list, err);
    if (!l)
        return 0;
    return step_to(l, l->iterating ? after_cursor(l) : nullptr, key_out, item_out, err);
}

int list_matching_first_node(void *list, sPChar *key, void **item_out, int *err)
{
    err = zel::detail_slot(err);
    List *l = usable(list, err);
    if (!l)
        return 0;
    if (!valid_key(key))
        return fail(err, kInvalid);
    return step_to(l, first_with_key(l->head, *key), nullptr, item_out, err);
}

int list_matching_next_node(void *list, sPChar *key, void **item_out, int *err)
{
    err = zel::detail_slot(err);
    List *l = usable(list, err);
    if (!l)
        return 0;
    if (!valid_key(key))
        return fail(err, kInvalid);
    if (!l->iterating)
        return fail(err, kNotFound);
    return step_to(l, first_with_key(after_cursor(l), *key), nullptr, item_out, err);
}

int list_delete_node(void *list, sPChar *key_out, void **item_out, int *err)
{
    err = zel::detail_slot(err);
    List *l = usable(list, err);
    if (!l)
        return 0;
    if (!key_out)
        return fail(err, kInvalid);
    Node *node = l->cursor;
    if (!node)
        return fail(err, kNotFound);
    copy_out(node, key_out, item_out);
    unlink_cursor(l);
    int ignored;
    return mem_free(&node, &ignored) ? succeed(err) : fail(err, kFreeFailed);
}

int list_set_key(void *list, sPChar *old_key_out, sPChar *new_key, int *err)
{
    err = zel::detail_slot(err);
    List *l = usable(list, err);
    if (!l)
        return 0;
    if (!l->cursor || !valid_key(new_key))
        return fail(err, kInvalid);
    if (old_key_out)
        *old_key_out = l->cursor->key;
    l->cursor->key = *new_key;
    return succeed(err);
}

int list_set_item(void *list, void **old_item_out, void *new_item, int *err)
{
    err = zel::detail_slot(err);
    List *l = usable(list, err);
    if (!l)
        return 0;
    if (!l->cursor || !new_item)
        return fail(err, kInvalid);
    if (old_item_out)
        *old_item_out = l->cursor->item;
    l->cursor->item = new_item;
    return succeed(err);
}

int list_node_count(void *list)
{
    int ignored;
    List *l = usable(list, &ignored);
    int count = 0;
    for (Node *n = l ? l->head : nullptr; n; n = n->next)
        ++count;
    return count;
}

} // extern "C"
