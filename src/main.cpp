#include "velatool.h"

int main(int argc, char** argv)
{
    return velatool_main(argc, argv);
}
