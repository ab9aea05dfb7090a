/** @file
 *  What gatewayd's clients say to it: message ids, function numbers, element ids and result codes.
 *  C11 and C++.
 *
 *  RPC (tarn_rpc.h), over TCP, TLS or a local socket. Requests and replies, as elements
 *  TYPE ID MEANING; what is not named is ignored:
 *
 *      1000 echo   any elements                     the same elements
 *      1001 get    STRING 1 name                    DOUBLE 2 value, UINT64 3 time
 *      1002 set    STRING 1 name, DOUBLE 2 value    nothing
 *      1003 list   nothing                          ARRAY 1 of OBJECT 2 { STRING 1 name,
 *                                                   DOUBLE 2 value, UINT64 3 time }
 *      1004 stats  nothing                          UINT64 1 requests, UINT64 2 connections,
 *                                                   UINT64 3 uptime
 *
 *  Files go by the built-in transfer (tarn_rpc_file.h) into the directory of --spool, under the name
 *  that the sender gives: 1 to 255 bytes without '/', '\', ".." and control characters, the first
 *  no '.'. Any other name is refused with GATEWAYD_WRONG_NAME.
 *
 *  IPC (tarn_ipc.h), under the name of the instance. Arguments and results, in this order; further
 *  arguments are ignored:
 *
 *      1 echo   any values                          the same values
 *      2 get    string name                         double value, uint64 time
 *      3 set    string name, double value           nothing
 *      4 list   nothing                             string name, double value, uint64 time, and so
 *                                                   on for every point
 *
 *  Names are 1 to 63 letters, digits and "_./-"; a string may have a NUL behind its name, and those of
 *  an IPC list have one. Lists are
 *  in the order of names. Times are milliseconds since 1970-01-01 00:00:00 UTC. */
#ifndef GATEWAYD_PROTOCOL_H
#define GATEWAYD_PROTOCOL_H

/** RPC message ids. */
enum
{
    GATEWAYD_MSG_ECHO = 1000,
    GATEWAYD_MSG_GET = 1001,
    GATEWAYD_MSG_SET = 1002,
    GATEWAYD_MSG_LIST = 1003,
    GATEWAYD_MSG_STATS = 1004
};

/** Elements of a point: in requests and replies of get and set, and in the objects of a list. */
enum
{
    GATEWAYD_ELM_NAME = 1,   /**< STRING */
    GATEWAYD_ELM_VALUE = 2,  /**< DOUBLE */
    GATEWAYD_ELM_TIME_MS = 3 /**< UINT64, of the last change */
};

/** Elements round the points of a list. */
enum
{
    GATEWAYD_ELM_POINTS = 1, /**< ARRAY of objects */
    GATEWAYD_ELM_POINT = 2   /**< OBJECT with the elements of a point */
};

/** Elements of stats. */
enum
{
    GATEWAYD_ELM_REQUESTS = 1,    /**< UINT64, RPC requests and IPC calls since the start, this one
                                       included, file transfers not */
    GATEWAYD_ELM_CONNECTIONS = 2, /**< UINT64, RPC and IPC connections that stand */
    GATEWAYD_ELM_UPTIME_MS = 3    /**< UINT64, milliseconds since the start */
};

/** IPC function numbers. */
enum
{
    GATEWAYD_FUNC_ECHO = 1,
    GATEWAYD_FUNC_GET = 2,
    GATEWAYD_FUNC_SET = 3,
    GATEWAYD_FUNC_LIST = 4
};

/** Result codes: of RPC replies, and what IPC functions return. */
enum
{
    GATEWAYD_OK = 0,
    GATEWAYD_WRONG_ELEMENT = -1, /**< an element or argument is missing, or not of its type */
    GATEWAYD_NO_SUCH_POINT = -2,
    GATEWAYD_WRONG_NAME = -3,   /**< not a name that a point, or a file, can have */
    GATEWAYD_TOO_LARGE = -4,    /**< an echo of more than GATEWAYD_ECHO_MAX bytes */
    GATEWAYD_TABLE_FULL = -5,   /**< there are as many points as there can be */
    GATEWAYD_NO_SUCH_CALL = -6, /**< no such message id or function */
    GATEWAYD_ENDING = -7,       /**< the daemon ends and takes no more work */
    GATEWAYD_FAILED = -8        /**< the reply could not be made; out of memory */
};

/** Most element bytes (tarn_rpc_msg_data_len()) that an echo takes. */
#define GATEWAYD_ECHO_MAX 1048576u

#endif
