#include "support.h"

int main(int argc, char **argv)
{
    return support::run(argc, argv);
}
