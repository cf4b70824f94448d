#pragma once

#include <fstream>

/// Keeps standard output for the table of benchmarks, which the returned stream writes: what the
/// server prints from now on goes nowhere. Thread: main, before anything is printed.
std::ofstream takeStandardOutput();

/// Runs the registered benchmarks and writes their table to `table`. Thread: main.
void runBenchmarks(std::ofstream& table);
