#pragma once

#include <string>

// Messages to the standard error stream that cannot flood it.
//
// report() writes each message whole, with its newline, in one write to std::cerr under a
// lock, so that messages from worker threads never interleave. While a query is open (a
// QueryScope lives), only the first kShownPerKind messages of each kind are written; the rest
// are counted, and when the last open scope closes one line per such kind gives the count:
//   "<message> ... and 12,345 more"
// Outside any scope every message is written.
namespace GmDiagnostics {

// One kind per message text.
enum class Kind {
    CollisionNormalPointFace,
    CollisionNormalEdgeEdge,
    ProximityNormalPointFace,
    ProximityNormalEdgeEdge,
    RangePointFace,
    RangeEdgeEdge,
    RangeProximityPointFace,
    RangeProximityEdgeEdge,
    CurveContinuousNormal,
    Count
};

constexpr int kShownPerKind = 3;

// Writes (or counts) `message`, which carries no newline.
void report(Kind kind, const char* message);

// "12,345": digits grouped by three with commas.
std::string groupDigits(unsigned long long n);

// Open for the duration of one query; scopes of concurrent queries share one budget per kind.
class QueryScope {
public:
    QueryScope();
    ~QueryScope();
    QueryScope(const QueryScope&) = delete;
    QueryScope& operator=(const QueryScope&) = delete;
};

}  // namespace GmDiagnostics
