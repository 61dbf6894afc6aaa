// Accuracy and speed of the continuous-time vertex-face and edge-edge primitives over the
// sample query sets (ccd-queries/<set>/{vertex-face,edge-edge}/*.csv, 8 rows per query, rational
// coordinates, ground truth in the last column).
//
//   bench_ccd [folder] [--verbose]
//
// Prints per set and in total: queries, true positives, false negatives, false positives and the
// mean time per query in nanoseconds (thread CPU time, best of five rounds). --verbose lists every false negative with its cubic.

#include <algorithm>
#include <ctime>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <qgtools/ccd_queries.h>
#include <qgtools/data_dir.h>
#include <quarrygeom/primitives/GmIntersection.h>

namespace fs = std::filesystem;

namespace {

using Vec = GmTVector<double>;

using Query = qgtools::CcdQuery;

std::vector<Query> readQueries(const fs::path& file) { return qgtools::readCcdQueries(file.string()); }

bool runQuery(const Query& q, bool edgeEdge) {
    double time;
    if (edgeEdge) {
        double s, t;
        Vec n;
        return GmIntersection::edgeEdgeIntersection(q.v[0], q.v[1], q.v[2], q.v[3], q.v[4], q.v[5], q.v[6], q.v[7],
                                                    1.7976931348623157e308, time, s, t, n);
    }
    Vec point, bary, n;
    return GmIntersection::pointFaceIntersection(q.v[0], q.v[1], q.v[2], q.v[3], q.v[4], q.v[5], q.v[6], q.v[7],
                                                 1.7976931348623157e308, time, point, bary, n);
}

double threadNanos() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) * 1e9 + double(ts.tv_nsec);
}

struct Tally {
    long queries = 0, tp = 0, fn = 0, fp = 0;
    double nanos = 0.0;  // summed mean time x queries
    void add(const Tally& o) {
        queries += o.queries;
        tp += o.tp;
        fn += o.fn;
        fp += o.fp;
        nanos += o.nanos;
    }
};

void printRow(const std::string& name, const Tally& t) {
    std::printf("%-38s %8ld %6ld %6ld %6ld %10.1f\n", name.c_str(), t.queries, t.tp, t.fn, t.fp,
                t.queries ? t.nanos / double(t.queries) : 0.0);
}

}  // namespace

int main(int argc, char** argv) {
    std::string root = qgtools::dataDir() + "/ccd-queries";
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--verbose")
            verbose = true;
        else
            root = arg;
    }
#ifndef QG_HAVE_GMP
    std::fprintf(stderr, "note: built without GMP/MPFR, coordinates are rounded by strtod and division\n");
#endif
    if (!fs::is_directory(root)) {
        std::fprintf(stderr, "no query folder %s\n", root.c_str());
        return 1;
    }

    // Collect the files by set and kind, in name order.
    std::map<std::string, std::vector<fs::path>> groups;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (!entry.is_regular_file() || entry.path().extension() != ".csv") continue;
        const fs::path kindDir = entry.path().parent_path();
        const std::string key = kindDir.parent_path().filename().string() + "/" + kindDir.filename().string();
        groups[key].push_back(entry.path());
    }

    std::printf("%-38s %8s %6s %6s %6s %10s\n", "set", "queries", "TP", "FN", "FP", "ns/query");
    Tally total, totalVF, totalEE;
    long preCheckRejects = 0;
    for (auto& [key, files] : groups) {
        std::sort(files.begin(), files.end());
        const bool edgeEdge = key.find("edge-edge") != std::string::npos;
        std::vector<Query> queries;
        std::vector<std::string> origin;
        for (const auto& f : files) {
            const std::vector<Query> qs = readQueries(f);
            for (size_t i = 0; i < qs.size(); ++i) origin.push_back(f.filename().string() + "#" + std::to_string(i));
            queries.insert(queries.end(), qs.begin(), qs.end());
        }
        Tally t;
        t.queries = long(queries.size());
        for (size_t i = 0; i < queries.size(); ++i) {
            const bool hit = runQuery(queries[i], edgeEdge);
            if (hit && queries[i].truth) ++t.tp;
            if (!hit && queries[i].truth) {
                ++t.fn;
                if (verbose) std::printf("  FN %s %s\n", key.c_str(), origin[i].c_str());
            }
            if (hit && !queries[i].truth) ++t.fp;
            // A contact whose cubic the fixed pre-check rejects is reported with its coefficients.
            if (queries[i].truth) {
                const Query& q = queries[i];
                double c[4];
                const bool ok = edgeEdge ? GmIntersection::detail::edgeEdgeCubic(q.v[0], q.v[1], q.v[2], q.v[3], q.v[4],
                                                                                q.v[5], q.v[6], q.v[7], c)
                                         : GmIntersection::detail::vertexFaceCubic(q.v[0], q.v[1], q.v[2], q.v[3],
                                                                                  q.v[4], q.v[5], q.v[6], q.v[7], c);
                if (ok && std::fabs(c[0] + c[1] + c[2] + c[3]) > 1e-12 &&
                    GmIntersection::detail::cubicRootPreCheckRejects(c[0], c[1], c[2], c[3])) {
                    ++preCheckRejects;
                    std::printf("  pre-check rejects contact %s %s: c = %.17g %.17g %.17g %.17g (%s)\n", key.c_str(),
                                origin[i].c_str(), c[0], c[1], c[2], c[3], hit ? "found" : "missed");
                }
            }
        }
        // Timing: thread CPU time (the machine is shared), best of five rounds of about 40k
        // queries each.
        const int reps = std::max(1, int(40000 / std::max<size_t>(1, queries.size())));
        volatile long sink = 0;
        double ns = 1e300;
        for (int round = 0; round < 5; ++round) {
            const double start = threadNanos();
            for (int r = 0; r < reps; ++r)
                for (const Query& q : queries) sink = sink + (runQuery(q, edgeEdge) ? 1 : 0);
            ns = std::min(ns, threadNanos() - start);
        }
        t.nanos = queries.empty() ? 0.0 : ns / double(reps);
        printRow(key, t);
        total.add(t);
        (edgeEdge ? totalEE : totalVF).add(t);
    }
    printRow("total vertex-face", totalVF);
    printRow("total edge-edge", totalEE);
    printRow("total", total);
    std::printf("contacts whose cubic the pre-check rejects: %ld\n", preCheckRejects);
    return 0;
}
