// tessaline: the command-line front of the library.
#include <cstdio>
#include <cstring>
#include <string>

#include "tessaline/Tessaline.h"

namespace {

void printUsage(std::FILE* out) {
    std::fprintf(out,
                 "Usage: tessaline [--help] [--version] [--check-device]\n"
                 "\n"
                 "Turns registered laser-scan frames into one triangle mesh.\n"
                 "\n"
                 "Options:\n"
                 "  --help           show this text and exit\n"
                 "  --version        print the library version and exit\n"
                 "  --check-device   select the compute device and report the result\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        printUsage(stderr);
        return 2;
    }
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
            printUsage(stdout);
            return 0;
        }
        if (std::strcmp(arg, "--version") == 0) {
            std::printf("tessaline %s\n", TESSALINE_VERSION_STRING);
            return 0;
        }
        if (std::strcmp(arg, "--check-device") == 0) {
            std::string message;
            const int status = SurfaceReconstruction::InitGPUCUDA(message);
            std::printf("device selection: %s (status %d)\n", message.c_str(), status);
            return status == 0 ? 0 : 1;
        }
        std::fprintf(stderr, "tessaline: unknown option '%s'\n\n", arg);
        printUsage(stderr);
        return 2;
    }
    return 0;
}
