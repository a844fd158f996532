// objc_msgSend and its sisters: finds the method and jumps to it, with every register that may hold
// an argument as it was (System V ABI for AMD64: six integers, eight vectors, and in %al how many
// vectors a variadic function is given). A message to nil gives zero.
//
// To super, what is handed over is not the receiver but a pointer to it and to the class in which
// the caller's method is written. No method of ours has a result that does not fit into registers.

__asm__(R"(
.text

.macro SAVE_ARGUMENTS
    push %rbp
    mov %rsp, %rbp
    sub $192, %rsp
    mov %rdi, (%rsp)
    mov %rsi, 8(%rsp)
    mov %rdx, 16(%rsp)
    mov %rcx, 24(%rsp)
    mov %r8, 32(%rsp)
    mov %r9, 40(%rsp)
    mov %rax, 48(%rsp)
    movups %xmm0, 64(%rsp)
    movups %xmm1, 80(%rsp)
    movups %xmm2, 96(%rsp)
    movups %xmm3, 112(%rsp)
    movups %xmm4, 128(%rsp)
    movups %xmm5, 144(%rsp)
    movups %xmm6, 160(%rsp)
    movups %xmm7, 176(%rsp)
.endm

.macro RESTORE_ARGUMENTS
    mov %rax, %r11
    mov (%rsp), %rdi
    mov 8(%rsp), %rsi
    mov 16(%rsp), %rdx
    mov 24(%rsp), %rcx
    mov 32(%rsp), %r8
    mov 40(%rsp), %r9
    mov 48(%rsp), %rax
    movups 64(%rsp), %xmm0
    movups 80(%rsp), %xmm1
    movups 96(%rsp), %xmm2
    movups 112(%rsp), %xmm3
    movups 128(%rsp), %xmm4
    movups 144(%rsp), %xmm5
    movups 160(%rsp), %xmm6
    movups 176(%rsp), %xmm7
    leave
.endm

.macro FUNCTION name
    .globl \name
    .type \name, @function
\name:
.endm

FUNCTION objc_msgSend
    test %rdi, %rdi
    jz 1f
    SAVE_ARGUMENTS
    call fakeLookUp@PLT
    RESTORE_ARGUMENTS
    jmp *%r11
1:  xor %eax, %eax
    xor %edx, %edx
    pxor %xmm0, %xmm0
    pxor %xmm1, %xmm1
    ret

FUNCTION objc_msgSendSuper2
    SAVE_ARGUMENTS
    mov 8(%rdi), %rdi
    call fakeLookUpAbove@PLT
    RESTORE_ARGUMENTS
    mov (%rdi), %rdi
    jmp *%r11

.section .note.GNU-stack, "", @progbits
.text
)");
