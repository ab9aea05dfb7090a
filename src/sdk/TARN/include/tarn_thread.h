/** @file
 *  Loop threads: a thread that calls one function again and again, once per loop cycle, until it
 *  is stopped.
 *
 *  Loop cycle in milliseconds, from the start of one call to the start of the next:
 *  0 calls back to back (for functions that block by themselves), TARN_THREAD_ONCE calls once.
 *  A call that takes longer than the cycle is followed by the next after 1 ms.
 *
 *  Life of a handle: it ends with tarn_thread_stop(); or with the thread itself when the loop
 *  cycle at the start was TARN_THREAD_ONCE, when proc stopped its own thread, when the loop cycle
 *  was changed to TARN_THREAD_ONCE, or when the thread was cancelled. Stopping a handle that has
 *  ended does nothing as long as no newer thread object has taken its address.
 *
 *  On a machine with two or more processors each loop thread is pinned to one, in turn.
 *  Threads: any function from any thread, unless stated. */
#ifndef TARN_THREAD_H
#define TARN_THREAD_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_thread *TARN_THREAD;

/** Loop cycle of a thread whose function is called once. */
#define TARN_THREAD_ONCE 0xFFFFFFFFu

/** The function that a loop thread calls; what it returns is not used. */
typedef void *(*tarn_thread_proc)(void *arg1, void *arg2);

/** Create and start a loop thread.
 *  @param proc         called with arg1 and arg2 on the new thread
 *  @param arg1,arg2    handed through; must stay valid until the thread has ended
 *  @param loop_cycle   milliseconds; 0 back to back; TARN_THREAD_ONCE once
 *  @param stack_size   bytes; 0: 2 MiB; below 16384: 16384. With the smallest stack keep large
 *                      arrays off it: about 7 KiB are free when proc begins
 *  @param thread_name  copied, cut to 39 bytes; null counts as empty
 *  @return the handle; TARN_INVALID_HANDLE when proc is null, memory ran out or the system has no
 *          thread left (ERROR). */
TARN_API TARN_THREAD tarn_thread_start_ex(tarn_thread_proc proc, void *arg1, void *arg2,
                                          uint32_t loop_cycle, uint32_t stack_size,
                                          const char *thread_name);

/** The same with the default stack size. */
TARN_API TARN_THREAD tarn_thread_start(tarn_thread_proc proc, void *arg1, void *arg2,
                                       uint32_t loop_cycle, const char *thread_name);

/** Call fn(arg) once on a thread of its own, named "oneshot_proc".
 *  @return the system thread id (no handle); 0 when the thread could not be started. */
TARN_API uint64_t tarn_thread_run_once(void (*fn)(void *arg), void *arg);

/** Stop a loop thread and release its handle.
 *  From another thread: asks the loop to end, which it does before its next call, and waits for
 *  the thread; hold no lock that proc takes; it is no cancellation point. Threads that stop one
 *  another in a circle are told apart: one of them does not wait (WARN) and the other is cancelled.
 *  From the thread itself: returns at once; the loop ends
 *  after the current call and frees the object. A one-shot thread is left to end by itself.
 *  @param t  null is reported at DEBUG and ignored */
TARN_API void tarn_thread_stop(TARN_THREAD t);

/** Wait until the thread runs; not for a one-shot thread, which may have ended and be gone.
 *  @return true when it has begun within ms. */
TARN_API bool tarn_thread_wait_for_start(TARN_THREAD t, uint32_t ms);

/** Loop cycle of a thread in milliseconds. */
TARN_API uint32_t tarn_thread_get_loop_cycle(TARN_THREAD t);

/** Change the loop cycle of a thread; a wait that runs keeps its length. */
TARN_API void tarn_thread_change_loop_cycle(TARN_THREAD t, uint32_t ms);

/** Change the calling loop thread's own cycle: takes effect with the wait that follows the current
 *  call. Does nothing on other threads. */
TARN_API void tarn_thread_set_loop_cycle(uint32_t ms);

/** The calling loop thread's own cycle; 0 on other threads. */
TARN_API uint32_t tarn_thread_self_loop_cycle(void);

/** The calling loop thread's name, valid while the thread runs; null on other threads. */
TARN_API const char *tarn_thread_self_name(void);

/** System thread id (pthread_t), cut to 32 bits; 0 for a thread that stopped itself. */
TARN_API uint32_t tarn_thread_id(TARN_THREAD t);
TARN_API uint32_t tarn_thread_self_id(void);

/** Millisecond tick at which the current or last call of proc began; 0 before the first. */
TARN_API uint32_t tarn_thread_loop_start_tick(TARN_THREAD t);

/** Sleep that a stop request ends: on the main thread (the one that called tarn_init()) it waits
 *  for the process exit event, on a loop thread for the thread's own stop event; on any other
 *  thread it returns false at once.
 *  @return true when the awaited event is set: leave the work; false when ms have passed. */
TARN_API bool tarn_thread_sleep(uint32_t ms);

/** Cancel a loop thread at its next cancellation point; its object is then freed.
 *  @param id  as tarn_thread_run_once() or tarn_thread_id() gave it
 *  @return true when a live loop thread has that id and was asked; false otherwise. */
TARN_API bool tarn_thread_cancel(uint64_t id);

/** Set the scheduling of a thread.
 *  @param t         null: the calling thread
 *  @param priority  0 real time (FIFO) at its maximum, 1 real time (RR) 20 below its maximum, 2 and
 *                   3 normal, 4 idle; any other changes nothing. Real time needs privileges; a
 *                   refusal is logged at ERROR */
TARN_API void tarn_thread_set_priority(TARN_THREAD t, int priority);

/** Number of live loop threads; at DEBUG logs their names. */
TARN_API uint32_t tarn_thread_count(void);

/** Thread-specific data, as the system's calls. */
typedef uint32_t tarn_tls_key;

/** Create a key.
 *  @param destructor  may be null; called with the value of each thread that ends with one set
 *  @return true on success, with the key stored. */
TARN_API bool tarn_tls_key_create(tarn_tls_key *key, void (*destructor)(void *value));

/** The calling thread's value of a key; null when none was set. */
TARN_API void *tarn_tls_get(tarn_tls_key key);

/** Set the calling thread's value of a key.
 *  @return true on success. */
TARN_API bool tarn_tls_set(tarn_tls_key key, const void *value);

TARN_END_DECLS

#endif
