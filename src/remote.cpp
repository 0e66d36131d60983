#include "remote.h"

struct state_s state;
