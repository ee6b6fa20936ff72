// Running a program as a process of its own (the tessaline program, the peer PoissonRecon): its wall
// time and its own peak memory.
//
// Linux keeps a process's peak resident set across exec, so a program started straight from the
// benchmark would report the benchmark's peak as its own. The benchmark therefore starts itself again as
// a small launcher (`--child`), and the launcher starts the program and reports what wait4 says of it.
#pragma once

#include <string>
#include <vector>

namespace bench {

struct ProcessRun {
    int status = -1;  // exit status; 128 + the signal when a signal ended it; 127 when it could not start
    double seconds = 0;
    double peak_mib = 0;  // the program's own peak resident memory (ru_maxrss)
    std::string log;      // what it wrote on standard output and error
};

// Runs `program` with `arguments` through the launcher `self` (this benchmark's executable), its output
// going to `log_path`. Throws std::runtime_error when the launcher cannot be started.
ProcessRun runProcess(const std::string& self, const std::string& program, const std::vector<std::string>& arguments,
                      const std::string& log_path);

// The launcher: argv = LOG PROGRAM ARGUMENTS... Starts PROGRAM with its output in LOG, waits for it
// and prints one line "child status S seconds T maxrss_kib K". Returns the launcher's exit status.
int childMain(int argc, char** argv);

}  // namespace bench
