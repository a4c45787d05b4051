// Puts the core's globals back to their state at process start, freeing what a previous
// test left behind. No test framework in it: the fuzz target uses it too.
#pragma once

void ltr_test_reset_core();
