/* Records, in the kernel and at the moment a flow starts, which process makes
 * it: when a TCP connection sends its first segment (the local port is chosen
 * by then) and at every unconnected UDP send. The filter looks the record up
 * when the flow's first packet reaches its queue, so a process that has
 * exited by then is still named. Exec records keep the path a process was
 * started from for the same reason. Both maps are LRU: memory stays bounded
 * whatever the load.
 *
 * The programs attach to the root of the cgroup v2 hierarchy (socket
 * operations and send hooks) and to the exec tracepoint: program types that
 * kernels without kprobes or BPF trampolines still offer. */
#include <linux/bpf.h>
#include <bpf/bpf_core_read.h>
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "KernelTypes.h"
#include "SocketOwnerRecords.h"

#define QF_AF_INET 2
#define QF_AF_INET6 10
#define QF_IPPROTO_TCP 6
#define QF_IPPROTO_UDP 17
#define QF_PF_KTHREAD 0x00200000

char LICENSE[] SEC("license") = "GPL";

/* The network namespace the filter serves (its cookie); 0 records every one. */
const volatile __u64 target_netns_cookie = 0;

/* Every exec on the machine adds one. The filter reads it from the mapped
 * data section: while it has not moved, no process has exec'd since a cached
 * one was checked, and the check's /proc read can be skipped. */
__u64 exec_generation = 0;

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 65536);
    __type(key, struct qf_flow_key);
    __type(value, struct qf_flow_owner);
} flow_owners SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 8192);
    __type(key, __u32);
    __type(value, struct qf_exec_record);
} exec_paths SEC(".maps");

/* Scratch space: an exec record is larger than a program's stack allows. */
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct qf_exec_record);
} exec_scratch SEC(".maps");

static __always_inline int is_v4_mapped(const __u32 *address) {
    return address[0] == 0 && address[1] == 0 && address[2] == bpf_htonl(0xffff);
}

/* The process running now, or the kernel's own when a kernel thread sends. */
static __always_inline void record(struct qf_flow_key *key) {
    __u64 id = bpf_get_current_pid_tgid();
    struct qf_flow_owner *known = bpf_map_lookup_elem(&flow_owners, key);
    /* Every datagram passes here; a flow already recorded for this process
     * costs one lookup and nothing more. */
    if (known && known->tgid == (__u32)(id >> 32)) return;

    struct task_struct *task = (struct task_struct *)bpf_get_current_task();
    struct qf_flow_owner owner = {};
    if (!(BPF_CORE_READ(task, flags) & QF_PF_KTHREAD)) {
        owner.tgid = id >> 32;
        owner.pid = (__u32)id;
        owner.uid = (__u32)bpf_get_current_uid_gid();
        owner.parent_tgid = BPF_CORE_READ(task, real_parent, tgid);
        owner.start_boottime_ns = BPF_CORE_READ(task, group_leader, start_boottime);
    }
    bpf_get_current_comm(owner.comm, sizeof owner.comm);
    bpf_map_update_elem(&flow_owners, key, &owner, BPF_ANY);
}

SEC("sockops")
int quillfort_tcp_connect(struct bpf_sock_ops *ops) {
    if (ops->op != BPF_SOCK_OPS_TCP_CONNECT_CB) return 1;
    struct qf_flow_key key = {.protocol = QF_IPPROTO_TCP};
    key.netns_cookie = bpf_get_netns_cookie(ops);
    if (target_netns_cookie != 0 && key.netns_cookie != target_netns_cookie) return 1;
    key.local_port = (__u16)ops->local_port;
    key.remote_port = (__u16)bpf_ntohl(ops->remote_port);
    if (ops->family == QF_AF_INET6) {
        __u32 address[4] = {ops->remote_ip6[0], ops->remote_ip6[1], ops->remote_ip6[2], ops->remote_ip6[3]};
        if (is_v4_mapped(address)) {
            key.family = QF_AF_INET;
            __builtin_memcpy(key.remote_address, &address[3], 4);
        } else {
            key.family = QF_AF_INET6;
            __builtin_memcpy(key.remote_address, address, 16);
        }
    } else {
        __u32 address = ops->remote_ip4;
        key.family = QF_AF_INET;
        __builtin_memcpy(key.remote_address, &address, 4);
    }
    record(&key);
    return 1;
}

static __always_inline int send_hook(struct bpf_sock_addr *ctx, __u8 family) {
    struct qf_flow_key key = {.family = family, .protocol = QF_IPPROTO_UDP};
    key.netns_cookie = bpf_get_netns_cookie(ctx);
    if (target_netns_cookie != 0 && key.netns_cookie != target_netns_cookie) return 1;
    struct bpf_sock *sk = ctx->sk;
    if (!sk) return 1;
    key.local_port = (__u16)sk->src_port;
    key.remote_port = bpf_ntohs((__u16)ctx->user_port);
    if (family == QF_AF_INET) {
        __u32 address = ctx->user_ip4;
        __builtin_memcpy(key.remote_address, &address, 4);
    } else {
        __u32 address[4] = {ctx->user_ip6[0], ctx->user_ip6[1], ctx->user_ip6[2], ctx->user_ip6[3]};
        /* A mapped IPv4 destination leaves as IPv4 and passes the IPv4 hook. */
        if (is_v4_mapped(address)) return 1;
        __builtin_memcpy(key.remote_address, address, 16);
    }
    record(&key);
    return 1;
}

SEC("cgroup/sendmsg4")
int quillfort_udp4_send(struct bpf_sock_addr *ctx) { return send_hook(ctx, QF_AF_INET); }

SEC("cgroup/sendmsg6")
int quillfort_udp6_send(struct bpf_sock_addr *ctx) { return send_hook(ctx, QF_AF_INET6); }

/* sched_process_exec(struct task_struct *p, pid_t old_pid, struct linux_binprm *bprm) */
SEC("raw_tracepoint/sched_process_exec")
int quillfort_exec(struct bpf_raw_tracepoint_args *ctx) {
    __u32 zero = 0;
    struct qf_exec_record *scratch = bpf_map_lookup_elem(&exec_scratch, &zero);
    if (!scratch) return 0;
    struct task_struct *task = (struct task_struct *)ctx->args[0];
    struct linux_binprm *binprm = (struct linux_binprm *)ctx->args[2];
    __u32 tgid = BPF_CORE_READ(task, tgid);
    scratch->start_boottime_ns = BPF_CORE_READ(task, group_leader, start_boottime);
    const char *filename = BPF_CORE_READ(binprm, filename);
    if (bpf_probe_read_kernel_str(scratch->path, sizeof scratch->path, filename) < 0) scratch->path[0] = 0;
    /* The new program's arguments are already on its stack here. */
    struct mm_struct *mm = BPF_CORE_READ(task, mm);
    unsigned long arg_start = BPF_CORE_READ(mm, arg_start);
    unsigned long arg_end = BPF_CORE_READ(mm, arg_end);
    __u64 length = arg_end > arg_start ? arg_end - arg_start : 0;
    if (length > QF_EXEC_ARGS_LENGTH - 1) length = QF_EXEC_ARGS_LENGTH - 1;
    length &= QF_EXEC_ARGS_LENGTH - 1;
    scratch->args_length = 0;
    if (length > 0 && bpf_probe_read_user(scratch->args, length, (const void *)arg_start) == 0)
        scratch->args_length = (__u32)length;
    bpf_map_update_elem(&exec_paths, &tgid, scratch, BPF_ANY);
    __sync_fetch_and_add(&exec_generation, 1);
    return 0;
}
