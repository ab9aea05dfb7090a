/** @file
 *  The layer for C++ users: owners that close what they hold, and lambdas where the C interface
 *  takes a function and a pointer. C++17 or later; uses neither exceptions nor RTTI.
 *
 *  It adds nothing that the C headers cannot do and hides nothing of them: get() gives the handle,
 *  which may be passed to every function of its module. A member named like a C function does what
 *  that one does, with its results, units, time-outs and threads; only what differs is said here.
 *
 *  Views and owners. For each kind of handle there is a view, event_ref, that can be copied and
 *  closes nothing, and an owner, event, that is a view, can be moved only and closes in its
 *  destructor. Both may be empty (false): members of an empty one do what the C function does with
 *  null. Creation is by static functions that give an empty owner on failure. release() hands the
 *  handle out; reset() closes it. Handles that a callback gets come as views: they are borrowed.
 *  Closing does what the destroy function of the kind does, so it may wait for threads and
 *  callbacks (not for the one that it is called from). It is no cancellation point.
 *
 *  Callables. Where an owner has one callback (thread, timer, file_monitor, rpc_file_send) the
 *  callable is moved to the heap when the owner is made and lives until it is closed: the owner can
 *  be moved, also while the callable runs, and a callable that closes its own owner is kept until it
 *  has returned. No call allocates. Jobs of a pool are copied into the job itself: two pointers at
 *  most, std::ref() for what is larger. Where there are several callbacks (conn, rpc, ipc) they are
 *  members of one handler object, which is borrowed: it has to stay at its place for as long as the
 *  owner, and the callbacks, live. Functions like list_ref::for_each() borrow theirs for the call.
 *  Callables must not throw. What they capture by reference has to outlive the owner: members that
 *  a thread uses are declared before the thread.
 *  Threads: a view or owner itself is a plain object; one thread at a time moves or closes it. */
#ifndef TARN_HPP
#define TARN_HPP

#include "tarn_cxx_data.hpp"
#include "tarn_cxx_io.hpp"
#include "tarn_cxx_net.hpp"
#include "tarn_cxx_owner.hpp"
#include "tarn_cxx_sync.hpp"

#endif
