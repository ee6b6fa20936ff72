// Running the peer program (PoissonRecon) beside the library: its wall time and its own peak memory.
//
// Linux keeps a process's peak resident set across exec, so a program started straight from the
// benchmark would report the benchmark's peak as its own. The benchmark therefore starts itself again as
// a small launcher (`--peer-child`), and the launcher starts the peer and reports what wait4 says of it.
#pragma once

#include <string>
#include <vector>

namespace bench {

struct PeerResult {
    bool ran = false;  // the program started and exited with status 0
    int status = -1;   // exit status; 128 + the signal when a signal ended it; -1 when it did not start
    double seconds = 0;
    double peak_mib = 0;  // the peer's own peak resident memory (ru_maxrss)
    std::string log;      // what it wrote on standard output and error
};

// Runs `program` with `arguments` through the launcher `self` (this benchmark's executable), its output
// going to `log_path`. Throws std::runtime_error when the launcher cannot be started.
PeerResult runPeer(const std::string& self, const std::string& program, const std::vector<std::string>& arguments,
                   const std::string& log_path);

// The launcher: argv = LOG PROGRAM ARGUMENTS... Starts PROGRAM with its output in LOG, waits for it
// and prints one line "peer-child status S seconds T maxrss_kib K". Returns the launcher's exit status.
int peerChildMain(int argc, char** argv);

}  // namespace bench
