/* Command-line front end: options, usage, the one action and its result. */
#ifndef VELA_VELATOOL_H
#define VELA_VELATOOL_H

#define VELATOOL_VERSION "1.00-32"

struct options_s {
    char action;     /* letter of the one action given, 0 = none yet */
    int verbose;     /* count of -v */
    int tracelevel;  /* 0..5 */
    char* arg[1];    /* the action's argument, points into argv */
    char* filename;  /* -f: sample output file */
};

extern struct options_s options;

void print_banner(void);
void print_usage(const char* progname);
int parse_opts(int argc, char** argv);
/* Runs the action named in options and returns main's exit status. */
int velatool_main(int argc, char** argv);

#endif
