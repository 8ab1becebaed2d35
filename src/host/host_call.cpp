#include "host/host_call.h"

namespace nrpc {

#if defined(__i386__)

// As CallHost.
// The words lie at a 16-byte boundary, so that the stack pointer is found again by rounding down
// whether the callee popped none, one or three of them; what must survive lies above them. `frame`
// receives the boundary's address: a call is broken off by going on at NrpcAfterHost with the stack
// pointer there.
asm(R"(
    .pushsection .text
    .hidden NrpcCallHost
    .hidden NrpcAfterHost
    .globl NrpcCallHost
    .globl NrpcAfterHost
    .type NrpcCallHost, @function
NrpcCallHost:
    .cfi_startproc
    pushl %ebp
    .cfi_def_cfa_offset 8
    .cfi_offset %ebp, -8
    movl %esp, %ebp
    .cfi_def_cfa_register %ebp
    pushl %ebx
    pushl %esi
    pushl %edi
    .cfi_offset %ebx, -12
    .cfi_offset %esi, -16
    .cfi_offset %edi, -20
    subl $32, %esp
    andl $-16, %esp
    movl %ebp, 16(%esp)
    fnstcw 20(%esp)
    stmxcsr 24(%esp)
    movl 12(%ebp), %eax
    movl %eax, 0(%esp)
    movl 16(%ebp), %eax
    movl %eax, 4(%esp)
    movl 20(%ebp), %eax
    movl %eax, 8(%esp)
    movl 24(%ebp), %eax
    movl %esp, (%eax)
    call *8(%ebp)
    andl $-16, %esp
NrpcAfterHost:
    cld
    fninit
    fldcw 20(%esp)
    ldmxcsr 24(%esp)
    movl 16(%esp), %ebp
    leal -12(%ebp), %esp
    popl %edi
    popl %esi
    popl %ebx
    popl %ebp
    .cfi_def_cfa %esp, 4
    ret
    .cfi_endproc
    .size NrpcCallHost, . - NrpcCallHost
    .popsection
)");
extern "C" HostWord NrpcCallHost(HostWord function, HostWord first, HostWord second, HostWord third,
                                 HostWord *frame);
extern "C" char NrpcAfterHost;

HostWord CallHost(HostWord function, HostWord first, HostWord second, HostWord third,
                  HostWord *frame) {
    return NrpcCallHost(function, first, second, third, frame);
}

HostWord AfterHostCall() {
    return reinterpret_cast<HostWord>(&NrpcAfterHost);
}

#else

// Other machines know one convention only.
HostWord CallHost(HostWord function, HostWord first, HostWord second, HostWord third, HostWord *) {
    return reinterpret_cast<HostWord (*)(HostWord, HostWord, HostWord)>(function)(first, second,
                                                                                  third);
}

#endif

} // namespace nrpc
