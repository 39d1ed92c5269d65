/* Shared by the kernel programs and the filter: the key a new flow is
 * recorded under and what is recorded about the process that made it. Plain C
 * with fixed-size fields, so both sides agree on the layout. */
#pragma once

#ifdef __cplusplus
#include <cstdint>
typedef std::uint8_t qf_u8;
typedef std::uint16_t qf_u16;
typedef std::uint32_t qf_u32;
typedef std::uint64_t qf_u64;
#else
typedef __u8 qf_u8;
typedef __u16 qf_u16;
typedef __u32 qf_u32;
typedef __u64 qf_u64;
#endif

#define QF_COMM_LENGTH 16
#define QF_EXEC_PATH_LENGTH 256
#define QF_EXEC_ARGS_LENGTH 256 /* a power of two: the length read is masked by it */

/* A flow as its first packet shows it from this host: protocol, local port,
 * remote address and port. The local address is left out: an unconnected
 * datagram socket does not know it when it sends. */
struct qf_flow_key {
    qf_u64 netns_cookie;
    qf_u8 family;   /* 2: IPv4, 10: IPv6 */
    qf_u8 protocol; /* 6: TCP, 17: UDP */
    qf_u16 local_port;
    qf_u16 remote_port;
    qf_u16 reserved;
    qf_u8 remote_address[16];
};

struct qf_flow_owner {
    qf_u32 tgid; /* 0: the kernel's own (a kernel thread or a kernel socket) */
    qf_u32 pid;
    qf_u32 uid;
    qf_u32 parent_tgid;
    qf_u64 start_boottime_ns; /* of the thread-group leader */
    char comm[QF_COMM_LENGTH];
};

/* What an exec started, kept for a process that is gone by the time its
 * flow is read: the path, and the start of its argument list (NUL-separated,
 * the last piece cut short when the list is longer), which names the script
 * an interpreter runs. */
struct qf_exec_record {
    qf_u64 start_boottime_ns;
    qf_u32 args_length;
    qf_u32 reserved;
    char path[QF_EXEC_PATH_LENGTH];
    char args[QF_EXEC_ARGS_LENGTH];
};
