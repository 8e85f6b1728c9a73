/*
 * OS wrapper on pthreads: memory with a per-block cap, tasks that can be
 * waited for, the task-switch lock, mutexes and message queues. Objects are
 * named by ids from small tables; deleting an object while another thread
 * still uses it is the caller's error, as it would be on the device. Errors
 * are errno values (110, ETIMEDOUT, also means "no message" for a
 * non-waiting receive).
 */
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include "cmp_ldap_posix.h"
#include "posix_internal.h"
#include "zelOSW.h"

static_assert(ETIMEDOUT == ZELOSW_NO_MESSAGE, "an empty queue reports ETIMEDOUT");

namespace {

/* ---- memory ---- */

constexpr int64_t kDefaultMaxAlloc = int64_t{64} << 20;
std::atomic<int64_t> g_max_alloc{-1}; /* -1: not read yet */

int64_t max_alloc()
{
    int64_t cap = g_max_alloc.load(std::memory_order_relaxed);
    if (cap < 0) {
        long value = posix_port::env_long("TOVEISTROR_MAX_ALLOC", 0);
        cap = value > 0 ? value : kDefaultMaxAlloc;
        g_max_alloc.store(cap, std::memory_order_relaxed);
    }
    return cap;
}

/* ---- id tables ---- */

pthread_mutex_t g_ids_lock = PTHREAD_MUTEX_INITIALIZER;
uint32_t g_last_id = 0;

struct IdsLock {
    IdsLock() { pthread_mutex_lock(&g_ids_lock); }
    ~IdsLock() { pthread_mutex_unlock(&g_ids_lock); }
};

/* Ids come from one process-wide counter, so an id of a deleted object is not
 * handed out again soon and a stale id finds nothing. */
template <typename T, size_t N>
class IdTable {
  public:
    uint32_t insert(T *obj)
    {
        IdsLock lock;
        for (Slot &slot : slots_) {
            if (slot.obj != nullptr) continue;
            do {
                ++g_last_id;
            } while (g_last_id == 0);
            slot.id = g_last_id;
            slot.obj = obj;
            return slot.id;
        }
        return 0;
    }
    T *find(uint32_t id)
    {
        IdsLock lock;
        Slot *slot = lookup(id);
        return slot == nullptr ? nullptr : slot->obj;
    }
    T *remove(uint32_t id)
    {
        IdsLock lock;
        Slot *slot = lookup(id);
        if (slot == nullptr) return nullptr;
        T *obj = slot->obj;
        *slot = Slot{};
        return obj;
    }

    /* Removes and releases every object for which pred is true. */
    template <typename Pred>
    void remove_if(Pred pred, void (*release)(T *))
    {
        IdsLock lock;
        for (Slot &slot : slots_) {
            if (slot.obj == nullptr || !pred(slot.obj)) continue;
            release(slot.obj);
            slot = Slot{};
        }
    }

  private:
    struct Slot {
        uint32_t id = 0;
        T *obj = nullptr;
    };
    Slot *lookup(uint32_t id)
    {
        if (id == 0) return nullptr;
        for (Slot &slot : slots_) {
            if (slot.id == id && slot.obj != nullptr) return &slot;
        }
        return nullptr;
    }
    Slot slots_[N];
};

/* ---- waiting with a time-out in ms: negative forever, 0 not at all ---- */

timespec monotonic_after(int32_t timeout_ms)
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    ts.tv_sec += timeout_ms / 1000;
    ts.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000L;
    }
    return ts;
}

struct Waitable {
    pthread_mutex_t lock;
    pthread_cond_t cond;
};

bool waitable_init(Waitable *w)
{
    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0) return false;
    bool ok = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) == 0 &&
              pthread_cond_init(&w->cond, &attr) == 0;
    pthread_condattr_destroy(&attr);
    if (!ok) return false;
    if (pthread_mutex_init(&w->lock, nullptr) != 0) {
        pthread_cond_destroy(&w->cond);
        return false;
    }
    return true;
}

void waitable_destroy(Waitable *w)
{
    pthread_cond_destroy(&w->cond);
    pthread_mutex_destroy(&w->lock);
}

/* Waits (with w->lock held) until ready() is true: 0, or ETIMEDOUT. */
template <typename Ready>
int32_t wait_until(Waitable *w, int32_t timeout_ms, Ready ready)
{
    if (ready()) return 0;
    if (timeout_ms == 0) return ETIMEDOUT;
    timespec until = monotonic_after(timeout_ms < 0 ? 0 : timeout_ms);
    while (!ready()) {
        int rc = timeout_ms < 0 ? pthread_cond_wait(&w->cond, &w->lock)
                                : pthread_cond_timedwait(&w->cond, &w->lock, &until);
        if (rc == ETIMEDOUT) return ready() ? 0 : ETIMEDOUT;
    }
    return 0;
}

/* ---- tasks ----
 * Threads run detached, so a task nobody waits for (the asynchronous test's)
 * leaves no thread behind. Its record says when it has ended; a waiter takes
 * the record away, and records of ended tasks nobody waited for are dropped
 * when the table fills up. */

struct Task {
    ZEL_OSW_TASK_ENTRY entry;
    void *args[10];
    char name[16]; /* the kernel keeps 15 characters */
    bool ended;    /* under g_tasks_w.lock */
    bool waiting;  /* a zelOSWWaitTask is on it */
    bool torn;     /* the thread's first round of key destructors has begun */
};

IdTable<Task, 64> g_tasks;
pthread_once_t g_tasks_once = PTHREAD_ONCE_INIT;
Waitable g_tasks_w;            /* guards ended/waiting; signals an end */
pthread_key_t g_current_task;  /* its destructor runs however the thread ends */
pthread_mutex_t g_switch_lock; /* zelOSWLockTask: recursive, process-wide */
bool g_tasks_ready = false;

void task_ended(void *arg)
{
    auto *t = static_cast<Task *>(arg);
    /* Other libraries free their per-thread state from destructors of the same round
     * (OpenSSL its error queue, for one). A waiter may let the process exit as soon as
     * it hears of the end, so the end is told from the next round, when every
     * destructor of this one has run. */
    if (!t->torn) {
        t->torn = true;
        if (pthread_setspecific(g_current_task, t) == 0) return;
    }
    pthread_mutex_lock(&g_tasks_w.lock);
    t->ended = true; /* a waiter may free t from here on */
    pthread_cond_broadcast(&g_tasks_w.cond);
    pthread_mutex_unlock(&g_tasks_w.lock);
}

void init_tasks()
{
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) return;
    bool ok = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0 &&
              pthread_mutex_init(&g_switch_lock, &attr) == 0;
    pthread_mutexattr_destroy(&attr);
    g_tasks_ready =
        ok && waitable_init(&g_tasks_w) && pthread_key_create(&g_current_task, task_ended) == 0;
}

bool tasks_ready()
{
    pthread_once(&g_tasks_once, init_tasks);
    return g_tasks_ready;
}

/* The body usually ends with zelOSWExitTask; the key's destructor reports the
 * end either way. */
void *task_main(void *arg)
{
    Task *t = static_cast<Task *>(arg);
    /* Cannot fail: glibc keeps the first keys in the thread itself. */
    pthread_setspecific(g_current_task, t);
    /* Named from inside: a detached thread's handle may be stale outside. */
    if (t->name[0] != '\0') pthread_setname_np(pthread_self(), t->name);
    void **a = t->args;
    t->entry(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9]);
    return nullptr;
}

void task_free(Task *t)
{
    free(t);
}

/* ---- mutexes ---- */

struct MutexSem {
    Waitable w;
    pthread_t owner;
    uint32_t depth; /* 0: free; the owner may take it again */
};

IdTable<MutexSem, 64> g_mutexes;

/* ---- message queues ---- */

struct Queue {
    Waitable w;
    uint32_t max_messages;
    uint32_t message_size;
    uint32_t head;  /* oldest message */
    uint32_t count; /* messages waiting */
    uint32_t *lengths;
    unsigned char *slots; /* max_messages * message_size */
};

IdTable<Queue, 64> g_queues;

void queue_free(Queue *q)
{
    free(q->lengths);
    free(q->slots);
    free(q);
}

}  // namespace

extern "C" {

void cmp_ldap_posix_reload_env(void)
{
    g_max_alloc.store(-1, std::memory_order_relaxed);
    posix_port::reload_log_level();
}

void *zelOSWSubAllocMem(uint32_t size)
{
    /* Above the cap the request fails like any allocation, so a size taken
     * from a server's length field cannot exhaust the machine. */
    if (static_cast<int64_t>(size) > max_alloc()) return nullptr;
    return malloc(size == 0 ? 1 : size);
}

int32_t zelOSWOrgFreeMemPart(uint32_t pool, void *block)
{
    (void)pool;
    free(block);
    return ZELOSW_OK;
}

int32_t zelOSWCreateJoinTask(uint32_t *task_id, const char *name, int32_t priority,
                             uint32_t stack_size, ZEL_OSW_TASK_ENTRY entry, int32_t options,
                             void *a1, void *a2, void *a3, void *a4, void *a5, void *a6, void *a7,
                             void *a8, void *a9, void *a10)
{
    (void)priority; /* every task runs at the process's own priority */
    (void)options;
    if (task_id == nullptr || entry == nullptr) return EINVAL;
    if (!tasks_ready()) return ENOMEM;
    auto *t = static_cast<Task *>(calloc(1, sizeof(Task)));
    if (t == nullptr) return ENOMEM;
    t->entry = entry;
    if (name != nullptr) strncpy(t->name, name, sizeof(t->name) - 1);
    void *args[10] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    memcpy(t->args, args, sizeof(args));

    uint32_t id = g_tasks.insert(t);
    if (id == 0) {
        pthread_mutex_lock(&g_tasks_w.lock);
        g_tasks.remove_if([](Task *old) { return old->ended && !old->waiting; }, task_free);
        pthread_mutex_unlock(&g_tasks_w.lock);
        id = g_tasks.insert(t);
    }
    if (id == 0) {
        free(t);
        return EAGAIN;
    }
    /* The id is in place before the task starts: task bodies read it. */
    *task_id = id;

    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc == 0) {
        /* A device's stack figure is too small for the C library's resolver,
         * Kerberos or a sanitizer build; it only ever raises the default. */
        size_t default_size = 0;
        if (pthread_attr_getstacksize(&attr, &default_size) == 0 && stack_size > default_size)
            pthread_attr_setstacksize(&attr, stack_size);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        pthread_t thread;
        rc = pthread_create(&thread, &attr, task_main, t);
        pthread_attr_destroy(&attr);
    }
    if (rc != 0) {
        g_tasks.remove(id);
        free(t);
        *task_id = 0;
        return rc;
    }
    return ZELOSW_OK;
}

int32_t zelOSWWaitTask(uint32_t task_id, int32_t timeout)
{
    if (!tasks_ready()) return EINVAL;
    pthread_mutex_lock(&g_tasks_w.lock);
    Task *t = g_tasks.find(task_id);
    int32_t rc = EINVAL;
    if (t != nullptr && !t->waiting) {
        t->waiting = true;
        rc = wait_until(&g_tasks_w, timeout, [t] { return t->ended; });
        t->waiting = false;
        if (rc == 0) g_tasks.remove(task_id);
    }
    pthread_mutex_unlock(&g_tasks_w.lock);
    if (rc == 0) free(t);
    return rc;
}

void zelOSWExitTask(int32_t code)
{
    /* The task ends when its body returns, which the library's task bodies do
     * right after this call. pthread_exit would have to unwind through core
     * frames built with -fno-exceptions, which 32-bit ARM has no tables for. */
    (void)code;
}

int32_t zelOSWLockTask(void)
{
    if (!tasks_ready()) return EINVAL;
    return pthread_mutex_lock(&g_switch_lock);
}

int32_t zelOSWUnlockTask(void)
{
    if (!tasks_ready()) return EINVAL;
    return pthread_mutex_unlock(&g_switch_lock);
}

int32_t zelOSWCreateMutexSem(uint32_t *mutex_id, uint32_t options, uint32_t initial)
{
    (void)options;
    if (mutex_id == nullptr) return EINVAL;
    auto *m = static_cast<MutexSem *>(calloc(1, sizeof(MutexSem)));
    if (m == nullptr) return ENOMEM;
    if (!waitable_init(&m->w)) {
        free(m);
        return ENOMEM;
    }
    /* Created unavailable (initial 0), it belongs to its creator. */
    if (initial == 0) {
        m->owner = pthread_self();
        m->depth = 1;
    }
    uint32_t id = g_mutexes.insert(m);
    if (id == 0) {
        waitable_destroy(&m->w);
        free(m);
        return EAGAIN;
    }
    *mutex_id = id;
    return ZELOSW_OK;
}

int32_t zelOSWRequestMutexSem(uint32_t mutex_id, int32_t timeout)
{
    MutexSem *m = g_mutexes.find(mutex_id);
    if (m == nullptr) return EINVAL;
    pthread_t self = pthread_self();
    pthread_mutex_lock(&m->w.lock);
    int32_t rc = 0;
    if (m->depth > 0 && pthread_equal(m->owner, self)) {
        ++m->depth;
    } else {
        rc = wait_until(&m->w, timeout, [m] { return m->depth == 0; });
        if (rc == 0) {
            m->owner = self;
            m->depth = 1;
        }
    }
    pthread_mutex_unlock(&m->w.lock);
    return rc;
}

int32_t zelOSWReleaseMutexSem(uint32_t mutex_id)
{
    MutexSem *m = g_mutexes.find(mutex_id);
    if (m == nullptr) return EINVAL;
    pthread_mutex_lock(&m->w.lock);
    int32_t rc = 0;
    if (m->depth == 0 || !pthread_equal(m->owner, pthread_self())) {
        rc = EPERM;
    } else if (--m->depth == 0) {
        pthread_cond_signal(&m->w.cond);
    }
    pthread_mutex_unlock(&m->w.lock);
    return rc;
}

int32_t zelOSWCreateMsgQueue(uint32_t *queue_id, uint32_t max_messages, uint32_t message_size,
                             uint32_t options)
{
    (void)options;
    if (queue_id == nullptr || max_messages == 0 || message_size == 0) return EINVAL;
    if (max_messages > SIZE_MAX / message_size) return ENOMEM;
    auto *q = static_cast<Queue *>(calloc(1, sizeof(Queue)));
    if (q == nullptr) return ENOMEM;
    q->max_messages = max_messages;
    q->message_size = message_size;
    q->lengths = static_cast<uint32_t *>(calloc(max_messages, sizeof(uint32_t)));
    q->slots = static_cast<unsigned char *>(calloc(max_messages, message_size));
    if (q->lengths == nullptr || q->slots == nullptr || !waitable_init(&q->w)) {
        queue_free(q);
        return ENOMEM;
    }
    uint32_t id = g_queues.insert(q);
    if (id == 0) {
        waitable_destroy(&q->w);
        queue_free(q);
        return EAGAIN;
    }
    *queue_id = id;
    return ZELOSW_OK;
}

int32_t zelOSWSendMsgQueue(uint32_t queue_id, const void *message, uint32_t size, int32_t timeout,
                           uint32_t priority)
{
    (void)priority; /* messages are delivered in the order sent */
    Queue *q = g_queues.find(queue_id);
    if (q == nullptr || message == nullptr) return EINVAL;
    if (size > q->message_size) return EMSGSIZE;
    pthread_mutex_lock(&q->w.lock);
    int32_t rc = wait_until(&q->w, timeout, [q] { return q->count < q->max_messages; });
    if (rc == 0) {
        uint32_t slot = (q->head + q->count) % q->max_messages;
        memcpy(q->slots + static_cast<size_t>(slot) * q->message_size, message, size);
        q->lengths[slot] = size;
        ++q->count;
        pthread_cond_broadcast(&q->w.cond);
    }
    pthread_mutex_unlock(&q->w.lock);
    return rc;
}

int32_t zelOSWReceiveMsgQueue(uint32_t queue_id, void *buffer, uint32_t size, int32_t timeout)
{
    Queue *q = g_queues.find(queue_id);
    if (q == nullptr || buffer == nullptr) return EINVAL;
    pthread_mutex_lock(&q->w.lock);
    int32_t rc = wait_until(&q->w, timeout, [q] { return q->count > 0; });
    if (rc == 0) {
        uint32_t slot = q->head;
        uint32_t n = q->lengths[slot] < size ? q->lengths[slot] : size;
        memcpy(buffer, q->slots + static_cast<size_t>(slot) * q->message_size, n);
        q->head = (q->head + 1) % q->max_messages;
        --q->count;
        pthread_cond_broadcast(&q->w.cond);
    }
    pthread_mutex_unlock(&q->w.lock);
    return rc;
}

int32_t zelOSWDeleteMsgQueue(uint32_t queue_id)
{
    Queue *q = g_queues.remove(queue_id);
    if (q == nullptr) return EINVAL;
    waitable_destroy(&q->w);
    queue_free(q);
    return ZELOSW_OK;
}

}  // extern "C"
