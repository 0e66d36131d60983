; Stand-in for the excitation firmware of PRU1, which comes with the simulated
; PRU core: the core halts at its entry point.
        .text
        .origin 0x220
        .entry  start
start:  halt
