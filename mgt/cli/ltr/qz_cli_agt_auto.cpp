// Placeholder until this unit lands: every operation fails.
#include "ltr_cli.h"
