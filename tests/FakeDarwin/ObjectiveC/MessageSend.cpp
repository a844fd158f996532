// objc_msgSend and objc_msgSendSuper2: find the method and jump to it with all argument registers
// preserved (System V ABI for AMD64: six integers, eight vectors, and in %al the number of vectors
// of a variadic call). A message to nil returns zero.
//
// A message to super passes, in place of the receiver, a pointer to the receiver and to the class
// that defines the calling method, whose second word is its superclass. No method here returns a
// value that does not fit into registers.

__asm__(R"(
.text

.macro SAVE_ARGUMENTS
    push %rbp
    mov %rsp, %rbp
    .irp register, rdi, rsi, rdx, rcx, r8, r9
    push %\register
    .endr
    push %rax
    sub $136, %rsp
    .irp number, 0, 1, 2, 3, 4, 5, 6, 7
    movups %xmm\number, 16*\number(%rsp)
    .endr
.endm

.macro RESTORE_ARGUMENTS
    mov %rax, %r11
    .irp number, 0, 1, 2, 3, 4, 5, 6, 7
    movups 16*\number(%rsp), %xmm\number
    .endr
    add $136, %rsp
    .irp register, rax, r9, r8, rcx, rdx, rsi, rdi
    pop %\register
    .endr
    pop %rbp
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
    mov (%rdi), %rdi
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
    mov 8(%rdi), %rdi
    call fakeLookUp@PLT
    RESTORE_ARGUMENTS
    mov (%rdi), %rdi
    jmp *%r11

.section .note.GNU-stack, "", @progbits
.text
)");
