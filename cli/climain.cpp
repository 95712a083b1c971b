// SPDX-License-Identifier: GPL-3.0-or-later
// tessel-cli: the headless front end to Tessel's engine and editor.

#include "cli/cliprocess.h"
#include "cli/cmdaudio.h"
#include "cli/cmdchain.h"
#include "cli/cmdedit.h"
#include "cli/cmdinspect.h"
#include "cli/version.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

void PrintHelp(std::FILE* to) {
    std::fputs("Usage: tessel-cli [OPTION] COMMAND [ARGUMENT]...\n"
               "\n"
               "Tessel's command-line front end: the same engine and editor as the desktop\n"
               "program, without windows.\n"
               "\n"
               "Commands:\n"
               "  info FILE...   Show each audio file's format, sample rate, channels, bits,\n"
               "                 duration, peak level and tags.\n"
               "  convert IN OUT [--bits 8|16|24|32|f32|alaw|ulaw] [--rate HZ]\n"
               "                 [--channels N] [--dither] [--set GROUP.KEY=VALUE]...\n"
               "                 Convert IN into OUT, whose extension chooses the format\n"
               "                 (.wav or .flac). OUT is replaced only once it is complete.\n"
               "                 --set changes an encoder setting for this conversion:\n"
               "                 FlacEncoder.Compression=0..8 (default 5),\n"
               "                 FlacEncoder.BitDepth=8|16|24|32 (default 16).\n"
               "  tags FILE [--set KEY=VALUE]... [--remove KEY]...\n"
               "                 Print a WAV file's tags, or change them in place.\n"
               "  synth OUT [--seconds S] [--hz F] [--rate HZ] [--channels N] [--bits B]\n"
               "                 Write a sine tone at -6 dBFS (default 5 s of 440 Hz,\n"
               "                 44100 Hz stereo, 16-bit).\n"
               "  edit IN... -o OUT [--do COMMAND]... [--script FILE]\n"
               "                 Open each IN, run editor commands on them in the order given\n"
               "                 (the first file is current at the start) and save the current\n"
               "                 file to OUT. A COMMAND is a name or identifier with settings\n"
               "                 as KEY=VALUE, e.g. --do 'select start=0:01 end=0:02.5' --do cut.\n"
               "                 A script holds one command per line. 'edit --list' lists the\n"
               "                 commands and their settings.\n"
               "  chain FILE     Print an effect chain file's effects in order with their\n"
               "                 settings.\n"
               "  inspect FILE   Print the chunk tree of a structured data file (effect\n"
               "                 presets and chains, projects, cache item information,\n"
               "                 cut-list links): file type and version, then each chunk's\n"
               "                 identifier, type, length and value, nested by indentation.\n"
               "\n"
               "Options:\n"
               "  -h, --help     Show this help and exit.\n"
               "  -V, --version  Show the version and exit.\n"
               "\n"
               "Long commands show a progress bar on a terminal; Ctrl+C stops them between\n"
               "blocks and leaves no half-written output.\n"
               "\n"
               "Exit status: 0 on success, 1 when a command fails, 2 on a usage error,\n"
               "130 when stopped by Ctrl+C.\n",
               to);
}

// Output goes through stdio's buffer, so a full disk or a closed pipe only shows at the flush;
// without this check the program would fail (or worse, succeed) without saying why.
int FinishOutput() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::fprintf(stderr, "tessel-cli: cannot write the output: %s\n", std::strerror(errno));
        return kExitFailed;
    }
    return kExitOk;
}

int UsageError(char const* message) {
    std::fprintf(stderr, "tessel-cli: %s\nTry 'tessel-cli --help' for more information.\n",
                 message);
    return kExitUsage;
}

int RunInspect(int argc, char** argv) {
    if (argc != 1) {
        return UsageError(argc == 0 ? "inspect needs a FILE" : "inspect takes exactly one FILE");
    }
    std::string out;
    std::string error;
    if (!LInspectStructuredDataFile(argv[0], out, error)) {
        std::fprintf(stderr, "tessel-cli: %s: %s\n", argv[0], error.c_str());
        return kExitFailed;
    }
    std::fwrite(out.data(), 1, out.size(), stdout);
    return FinishOutput();
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        PrintHelp(stderr);
        return kExitUsage;
    }
    char const* const command = argv[1];
    if (std::strcmp(command, "-h") == 0 || std::strcmp(command, "--help") == 0 ||
        std::strcmp(command, "help") == 0) {
        PrintHelp(stdout);
        return FinishOutput();
    }
    if (std::strcmp(command, "-V") == 0 || std::strcmp(command, "--version") == 0) {
        std::printf("tessel-cli %s\n", TESSEL_VERSION);
        return FinishOutput();
    }
    if (std::strcmp(command, "inspect") == 0) {
        return RunInspect(argc - 2, argv + 2);
    }
    struct Command {
        char const* name;
        int (*run)(int, char**);
    };
    for (Command const c : {Command{"info", LCliRunInfo}, Command{"convert", LCliRunConvert},
                            Command{"tags", LCliRunTags}, Command{"synth", LCliRunSynth},
                            Command{"edit", LCliRunEdit}, Command{"chain", LCliRunChain}}) {
        if (std::strcmp(command, c.name) == 0) {
            LCliInstallInterruptHandler();
            int const status = c.run(argc - 2, argv + 2);
            int const flushed = FinishOutput();
            return status != kExitOk ? status : flushed;
        }
    }
    std::string const message = std::string("unknown command '") + command + "'";
    return UsageError(message.c_str());
}
