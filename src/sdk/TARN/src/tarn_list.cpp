// Lists: nodes between two sentinels, and a stack of nodes kept for reuse.
//
// Invariants: every linked node has a next and a prev, the sentinels' outer ends are null; count is
// the number of linked nodes. Nodes go from the list to the stack and back, and to the allocator
// only when the list is destroyed.
//
// A callback may change or destroy the list that it is called for. Each walk therefore registers
// where it stands, whoever unlinks a node moves the walks off it, and a destroy during a walk
// leaves the record to the outermost one.

#include "tarn_list.h"

#include "tarn_check.h"
#include "tarn_modules.h"
#include "tarn_raii.h"

#include <utility>

namespace
{

struct list_node
{
    void *item;
    list_node *next;
    list_node *prev; ///< not kept up in the stack
};

class walk;

} // namespace

struct tarn_list
{
    tarn_handle_header header;
    list_node head;
    list_node tail;
    list_node *free_nodes; ///< stack through next
    uint32_t count;
    uint32_t max_size;
    walk *walks;       ///< innermost of those that run
    uint8_t destroyed; ///< 1: the outermost walk frees the record
};
TARN_ASSERT_RECORD(tarn_list);

namespace
{

void free_chain(list_node *node, const list_node *end)
{
    while (node != end)
    {
        tarn_mem_free(std::exchange(node, node->next));
    }
}

void free_list(TARN_LIST l)
{
    free_chain(l->head.next, &l->tail);
    free_chain(l->free_nodes, nullptr);
    tarn_mem_free(l);
}

/** One walk from front to back that survives whatever its callback does. */
class [[nodiscard]] walk
{
public:
    // Not inlined: g++ 12 would report the address kept here, which the destructor takes back.
    [[gnu::noinline]] explicit walk(TARN_LIST l) : l_(l), outer_(l->walks), next_(l->head.next)
    {
        l->walks = this;
    }
    walk(const walk &) = delete;
    walk &operator=(const walk &) = delete;
    ~walk()
    {
        l_->walks = outer_;
        if (outer_ == nullptr && l_->destroyed != 0)
        {
            free_list(l_);
        }
    }
    /** On to the next node; false at the end. */
    bool step()
    {
        if (next_ == &l_->tail)
        {
            return false;
        }
        current_ = std::exchange(next_, next_->next);
        return true;
    }
    /** The node stepped on; null when it has left the list since. */
    [[nodiscard]] list_node *current() const
    {
        return current_;
    }
    static void node_leaves(TARN_LIST l, const list_node *node)
    {
        for (walk *w = l->walks; w != nullptr; w = w->outer_)
        {
            w->current_ = w->current_ == node ? nullptr : w->current_;
            w->next_ = w->next_ == node ? node->next : w->next_;
        }
    }
    static void all_leave(TARN_LIST l)
    {
        for (walk *w = l->walks; w != nullptr; w = w->outer_)
        {
            w->current_ = nullptr;
            w->next_ = &l->tail;
        }
    }

private:
    TARN_LIST l_;
    walk *outer_;
    list_node *current_ = nullptr;
    list_node *next_;
};

/** A node from the stack or the allocator; null when memory ran out. */
list_node *take_node(TARN_LIST l)
{
    list_node *node = l->free_nodes;
    if (node == nullptr)
    {
        return static_cast<list_node *>(tarn_mem_alloc(sizeof(list_node)));
    }
    l->free_nodes = node->next;
    return node;
}

bool link_before(TARN_LIST l, list_node *place, void *item)
{
    RVOF(l->count < l->max_size, false);
    list_node *node = take_node(l);
    RVON_TEXT(node, false, "RVON(item,false)");
    *node = {item, place, place->prev};
    place->prev->next = node;
    place->prev = node;
    ++l->count;
    return true;
}

void *unlink(TARN_LIST l, list_node *node)
{
    walk::node_leaves(l, node);
    node->prev->next = node->next;
    node->next->prev = node->prev;
    --l->count;
    node->next = std::exchange(l->free_nodes, node);
    return node->item;
}

void *pop(TARN_LIST l, list_node *node)
{
    RVOF(l->count > 0, NULL);
    RVOF(l->head.next != &l->tail, NULL);
    return unlink(l, node);
}

/** Node at a position below count. */
list_node *node_at(TARN_LIST l, uint32_t index)
{
    list_node *node = nullptr;
    if (index < l->count / 2)
    {
        for (node = l->head.next; index > 0; --index)
        {
            node = node->next;
        }
        return node;
    }
    for (node = l->tail.prev; ++index < l->count;)
    {
        node = node->prev;
    }
    return node;
}

bool is_item(void *item, void *wanted, void *)
{
    return item == wanted;
}

} // namespace

TARN_LIST tarn_list_create(uint32_t max_size)
{
    RVOF(max_size > 0, TARN_INVALID_HANDLE);
    auto list = tarn::make_object<tarn_list>(TARN_HANDLE_TYPE_LIST);
    RVON(list, TARN_INVALID_HANDLE);
    list->head.next = &list->tail;
    list->tail.prev = &list->head;
    list->max_size = max_size;
    return list.release();
}

void tarn_list_destroy(TARN_LIST l)
{
    if (l == nullptr)
    {
        return;
    }
    if (l->count > 0)
    {
        TARN_LOG_WARN("list[%p] is not empty! count = %d", static_cast<void *>(l),
                      static_cast<int>(l->count));
    }
    if (l->walks != nullptr)
    {
        tarn_list_clear(l);
        l->destroyed = 1;
        return;
    }
    free_list(l);
}

uint32_t tarn_list_count(TARN_LIST l)
{
    RVON(l, 0);
    return l->count;
}

uint32_t tarn_list_max_size(TARN_LIST l)
{
    RVON(l, 0);
    return l->max_size;
}

bool tarn_list_is_full(TARN_LIST l)
{
    RVON(l, false);
    return l->count == l->max_size;
}

bool tarn_list_full(TARN_LIST l)
{
    return tarn_list_is_full(l);
}

bool tarn_list_is_empty(TARN_LIST l)
{
    RVON(l, true);
    return l->count == 0;
}

bool tarn_list_empty(TARN_LIST l)
{
    return tarn_list_is_empty(l);
}

void *tarn_list_front(TARN_LIST l)
{
    RVON(l, NULL);
    return l->head.next->item; // the sentinels hold null
}

void *tarn_list_back(TARN_LIST l)
{
    RVON(l, NULL);
    return l->tail.prev->item;
}

bool tarn_list_push_front(TARN_LIST l, void *item)
{
    RVON(l, false);
    return link_before(l, l->head.next, item);
}

bool tarn_list_push_back(TARN_LIST l, void *item)
{
    RVON(l, false);
    return link_before(l, &l->tail, item);
}

void *tarn_list_pop_front(TARN_LIST l)
{
    RVON(l, NULL);
    return pop(l, l->head.next);
}

void *tarn_list_pop_back(TARN_LIST l)
{
    RVON(l, NULL);
    return pop(l, l->tail.prev);
}

void *tarn_list_get_at(TARN_LIST l, uint32_t index)
{
    RVON(l, NULL);
    RVOF(l->count > 0, NULL);
    RVOF(index < l->count, NULL);
    return node_at(l, index)->item;
}

bool tarn_list_insert(TARN_LIST l, uint32_t index, void *item)
{
    RVON(l, false);
    return link_before(l, index < l->count ? node_at(l, index) : &l->tail, item);
}

void *tarn_list_find_if(TARN_LIST l, tarn_list_pred pred, void *arg1, void *arg2)
{
    RVON(l, NULL);
    RVON(pred, NULL);
    walk w(l);
    while (w.step())
    {
        void *item = w.current()->item;
        if (pred(item, arg1, arg2))
        {
            return item;
        }
    }
    return nullptr;
}

void *tarn_list_remove_if(TARN_LIST l, tarn_list_pred pred, void *arg1, void *arg2)
{
    RVON(l, NULL);
    RVON(pred, NULL);
    walk w(l);
    while (w.step())
    {
        void *item = w.current()->item;
        if (pred(item, arg1, arg2))
        {
            if (w.current() != nullptr)
            {
                (void)unlink(l, w.current());
            }
            return item;
        }
    }
    return nullptr;
}

void *tarn_list_remove(TARN_LIST l, const void *item)
{
    return tarn_list_remove_if(l, is_item, const_cast<void *>(item), nullptr);
}

bool tarn_list_contains(TARN_LIST l, const void *item)
{
    RVON(l, false);
    walk w(l);
    while (w.step())
    {
        if (w.current()->item == item)
        {
            return true;
        }
    }
    return false;
}

void tarn_list_clear(TARN_LIST l)
{
    RON(l);
    walk::all_leave(l);
    if (l->count > 0)
    {
        l->tail.prev->next = std::exchange(l->free_nodes, l->head.next);
        l->head.next = &l->tail;
        l->tail.prev = &l->head;
        l->count = 0;
    }
}

void tarn_list_for_each(TARN_LIST l, tarn_list_fn fn, void *arg1, void *arg2)
{
    RON(l);
    RON(fn);
    walk w(l);
    while (w.step())
    {
        fn(w.current()->item, arg1, arg2);
    }
}

void **tarn_list_to_array(TARN_LIST l)
{
    RVON(l, NULL);
    if (l->count == 0)
    {
        return nullptr;
    }
    auto array = tarn::unique_mem<void *>::make_array(l->count);
    RVON(array, NULL);
    void **out = array.get();
    for (const list_node *node = l->head.next; node != &l->tail; node = node->next)
    {
        *out++ = node->item;
    }
    return array.release();
}

bool tarn_list_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_list_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}
