/*
 * Preloaded into User-mode Linux by scripts/real-card.
 *
 * The UML kernel saves and restores the FPU state of the processes it runs
 * with PTRACE_SETREGSET NT_X86_XSTATE, passing a buffer of the XSAVE size
 * it was built for. Newer host kernels on CPUs with large XSAVE areas
 * (AVX-512, AMX) refuse a buffer shorter than the host's full size with
 * EFAULT, and the VM panics at its first user process ("ptrace set fp regs
 * failed"). Here such a short buffer is laid over the task's current full
 * state and the whole area is written back. On hosts whose size matches,
 * the call goes through unchanged.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <elf.h>
#include <stdarg.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/types.h>
#include <sys/uio.h>

/* Larger than any XSAVE area a CPU has today (AMX tiles included). */
#define XSTATE_MAX_BYTES 65536

typedef long (*ptrace_fn)(enum __ptrace_request, ...);

static ptrace_fn real_ptrace(void) {
    static ptrace_fn next;
    if (next == NULL) next = (ptrace_fn)dlsym(RTLD_NEXT, "ptrace");
    return next;
}

static __thread unsigned char full_state[XSTATE_MAX_BYTES];

/* SETREGSET of a short XSAVE buffer: read the full area, overlay, write it. */
static long set_xstate(pid_t pid, void *addr, struct iovec *given) {
    struct iovec full = {full_state, sizeof full_state};
    if (real_ptrace()(PTRACE_GETREGSET, pid, addr, &full) != 0 || full.iov_len <= given->iov_len)
        return real_ptrace()(PTRACE_SETREGSET, pid, addr, given);
    memcpy(full_state, given->iov_base, given->iov_len);
    return real_ptrace()(PTRACE_SETREGSET, pid, addr, &full);
}

long ptrace(enum __ptrace_request request, ...) {
    va_list args;
    va_start(args, request);
    pid_t pid = va_arg(args, pid_t);
    void *addr = va_arg(args, void *);
    void *data = va_arg(args, void *);
    va_end(args);
    if (request == PTRACE_SETREGSET && (long)addr == NT_X86_XSTATE && data != NULL)
        return set_xstate(pid, addr, data);
    return real_ptrace()(request, pid, addr, data);
}
