; Stand-in for the acquisition firmware of PRU0, which comes with the simulated
; PRU core: the core halts at its entry point.
        .text
        .origin 0x724
        .entry  start
start:  halt
