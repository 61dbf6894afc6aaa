// Every sample query (ccd-queries/<set>/{vertex-face,edge-edge}/*.csv) through the continuous-time
// primitives: no contact of the ground truth may be missed.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

struct Query : qgtools::CcdQuery {
    std::string origin;
};

// All query files, parsed once: key "set/kind".
const std::map<std::string, std::vector<Query>>& allQueries() {
    static const std::map<std::string, std::vector<Query>> sets = [] {
        std::map<std::string, std::vector<Query>> out;
        const fs::path root = fs::path(qgtools::dataDir()) / "ccd-queries";
        if (!fs::is_directory(root)) return out;
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            if (!entry.is_regular_file() || entry.path().extension() != ".csv") continue;
            const fs::path kind = entry.path().parent_path();
            const std::string key = kind.parent_path().filename().string() + "/" + kind.filename().string();
            int index = 0;
            for (const qgtools::CcdQuery& c : qgtools::readCcdQueries(entry.path().string())) {
                Query q;
                static_cast<qgtools::CcdQuery&>(q) = c;
                q.origin = entry.path().filename().string() + " #" + std::to_string(index++);
                out[key].push_back(q);
            }
        }
        return out;
    }();
    return sets;
}

bool runQuery(const Query& q, bool edgeEdge, double& time, Vec& normal) {
    if (edgeEdge) {
        double s, t;
        return GmIntersection::edgeEdgeIntersection(q.v[0], q.v[1], q.v[2], q.v[3], q.v[4], q.v[5], q.v[6], q.v[7],
                                                    1.7976931348623157e308, time, s, t, normal);
    }
    Vec point, bary;
    return GmIntersection::pointFaceIntersection(q.v[0], q.v[1], q.v[2], q.v[3], q.v[4], q.v[5], q.v[6], q.v[7],
                                                 1.7976931348623157e308, time, point, bary, normal);
}

}  // namespace

TEST(CcdSampleQueries, NoContactIsMissed) {
    const auto& sets = allQueries();
    if (sets.empty()) GTEST_SKIP() << "no ccd-queries folder under " << qgtools::dataDir();
    int positives = 0;
    for (const auto& [key, queries] : sets) {
        const bool edgeEdge = key.find("edge-edge") != std::string::npos;
        int falseNegatives = 0;
        for (const Query& q : queries) {
            double time = -1.0;
            Vec n;
            const bool hit = runQuery(q, edgeEdge, time, n);
            if (q.truth) ++positives;
            if (q.truth && !hit) {
                ++falseNegatives;
                ADD_FAILURE() << "missed contact: " << key << " " << q.origin;
            }
            if (hit) {
                EXPECT_GE(time, 0.0) << key << " " << q.origin;
                EXPECT_LE(time, 1.0) << key << " " << q.origin;
                EXPECT_NEAR(n.length(), 1.0, 1e-12) << key << " " << q.origin;
            }
        }
        EXPECT_EQ(falseNegatives, 0) << key;
    }
    EXPECT_GT(positives, 0);
}

// Moving the whole query rigidly far away and scaling it changes nothing about the contact;
// the primitives must not depend on absolute coordinates or units.
TEST(CcdSampleQueries, ContactsSurviveScalingByPowersOfTwo) {
    const auto& sets = allQueries();
    if (sets.empty()) GTEST_SKIP() << "no ccd-queries folder";
    for (const auto& [key, queries] : sets) {
        const bool edgeEdge = key.find("edge-edge") != std::string::npos;
        for (const double scale : {1.0 / 1024.0, 4096.0}) {
            for (const Query& q : queries) {
                if (!q.truth) continue;
                Query s = q;
                for (Vec& v : s.v) v = v * scale;  // exact
                double time;
                Vec n;
                EXPECT_TRUE(runQuery(s, edgeEdge, time, n)) << key << " " << q.origin << " scale " << scale;
            }
        }
    }
}
