// For targets whose code says much on standard error: its stream goes nowhere, while libFuzzer and
// the sanitizers, which hold the old stream and the descriptor, still have theirs.
#pragma once

#include <cstdio>

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    stderr = fopen("/dev/null", "we");
    return stderr ? 0 : 1;
}
