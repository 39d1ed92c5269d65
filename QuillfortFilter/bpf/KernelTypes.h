/* The few kernel structures the socket-owner programs read, named as the
 * kernel names them. Only the fields used are declared: with
 * preserve_access_index, libbpf finds each field's real offset in the running
 * kernel's BTF when the programs load, so no generated header of a particular
 * kernel is needed. */
#pragma once

#include <linux/types.h>

#define QF_CORE __attribute__((preserve_access_index))

struct mm_struct {
    unsigned long arg_start;
    unsigned long arg_end;
} QF_CORE;

struct task_struct {
    unsigned int flags;
    struct mm_struct *mm;
    int tgid;
    struct task_struct *real_parent;
    struct task_struct *group_leader;
    __u64 start_boottime;
} QF_CORE;

struct linux_binprm {
    const char *filename;
} QF_CORE;
