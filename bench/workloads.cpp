// make bench: the workloads W1..W8 and W10 on the library, each repetition in a child
// process on a fresh table, written to a tab-separated results file.

#include "workload_database.h"

#include <cstdio>
#include <fstream>

using namespace workload;

int main(int argc, char **argv)
{
    Options options = parseOptions(argc, argv);
    if (options.out.empty()) {
        // Next to the program, inside the build tree: never the sources.
        const std::string program = argv[0];
        const size_t slash = program.rfind('/');
        options.out = (slash == std::string::npos ? std::string() : program.substr(0, slash + 1)) + "results.tsv";
    }
    std::ofstream out(options.out);
    out << "workload\tpeer\tmedian_s\tmin_s\tmax_s\treps\titems\tthroughput\tunit\tnote\n";
    std::printf("%-8s %-16s %10s %10s %10s  %s\n", "workload", "peer", "median_s", "min_s", "max_s", "check");
    bool failed = false;
    for (const Entry &entry : databaseEntries()) {
        if (!selected(options, entry))
            continue;
        std::vector<Result> results;
        for (int r = 0; r < options.reps; ++r)
            results.push_back(runIsolated(entry, options.n));
        const Summary s = summarize(results);
        std::string note = "check " + s.check;
        if (s.bytesPerRow > 0)
            note += "; resident bytes per row " + std::to_string(static_cast<long>(s.bytesPerRow + 0.5));
        if (s.reps == 0) {
            note = "failed";
            failed = true;
        }
        const double throughput = s.median > 0 ? s.items / s.median : 0;
        out << entry.workload << '\t' << entry.peer << '\t' << s.median << '\t' << s.min << '\t' << s.max << '\t'
            << s.reps << '\t' << s.items << '\t' << throughput << '\t' << entry.unit << "/s\t" << note << '\n';
        out.flush();
        std::printf("%-8s %-16s %10.4f %10.4f %10.4f  %s\n", entry.workload.c_str(), entry.peer.c_str(), s.median,
                    s.min, s.max, note.c_str());
        std::fflush(stdout);
    }
    std::printf("results: %s\n", options.out.c_str());
    return failed ? 1 : 0;
}
