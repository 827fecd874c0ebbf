// Measures the connector, or a raw way to do the same, in one workload; prints one line of JSON.
#include <cstdio>

#include "Options.h"
#include "Report.h"
#include "Subject.h"
#include "Supervisor.h"
#include "Workloads.h"

namespace bench {

std::unique_ptr<Subject> makeSubject(const Options& options) {
    if (options.variant == "raw-packet") return makeRawPacketSubject(options);
    if (options.variant == "raw-memory" || options.variant == "raw-memory-recycled")
        return makeRawMemorySubject(options);
    return makeConnectorSubject(options);
}

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Options options = bench::parseOptions(argc, argv);
    if (const char* reason = bench::makeSubject(options)->unsupported()) {
        bench::printLine(options, std::string("\"skip\":\"") + reason + '"');
        return 0;
    }
    return bench::supervise(options, bench::measure);
}
