// SPDX-License-Identifier: Apache-2.0
#include "bench/count/benchmark/benchmark.h"

int main(int argc, char **argv)
{
    return benchmark::run_all(argc, argv);
}
