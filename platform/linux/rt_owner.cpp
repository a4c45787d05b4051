// Placeholder until the owner service lands.
#include "rt.h"
void rt_owner_start() {}
