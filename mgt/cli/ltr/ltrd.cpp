// ltrd: the daemon core linked with a platform runtime.
#include "ltr_mgt.h"

int main(int argc, char **argv)
{
    return ltr_main(argc, argv);
}
