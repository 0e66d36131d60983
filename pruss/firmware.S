/*
 * The PRU firmware images linked into the program, 8192 bytes each, as the
 * build assembled them from pru0.asm and pru1.asm.
 */
    .section .rodata
    .balign 4

    .macro image name
    .global _binary_pruss_\name\()_bin_start
_binary_pruss_\name\()_bin_start:
    .incbin "\name\().bin"
    .endm

    image pru0_text
    image pru0_data
    image pru1_text
    image pru1_data

    .section .note.GNU-stack, "", %progbits
