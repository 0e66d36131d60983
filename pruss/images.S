/*
 * The PRU firmware images linked into the program, 8192 bytes each.
 *
 * The firmware is not in the tree yet: until it is, each code image holds a
 * single HALT instruction and the data images are zeros. The simulated board
 * emulates the firmware's behaviour.
 */
    .section .rodata
    .balign 4

    .macro image name, first_word
    .global _binary_pruss_\name\()_bin_start
_binary_pruss_\name\()_bin_start:
    .4byte \first_word
    .fill 8188, 1, 0
    .endm

    image pru0_text, 0x2A000000 /* HALT */
    image pru0_data, 0
    image pru1_text, 0x2A000000
    image pru1_data, 0

    .section .note.GNU-stack, "", %progbits
