#include "GmDiagnostics.h"

#include <atomic>
#include <iostream>
#include <mutex>

namespace GmDiagnostics {

namespace {

constexpr int kKinds = static_cast<int>(Kind::Count);

struct State {
    std::mutex lock;  // one writer at a time; also guards opening and closing scopes
    int openScopes = 0;
    std::atomic<bool> limited{false};
    std::atomic<unsigned long long> seen[kKinds] = {};
    // The text of each kind's last message, for the summary line.
    const char* text[kKinds] = {};
};

State& state() {
    static State s;
    return s;
}

void writeLine(State& s, const std::string& line) {
    std::lock_guard<std::mutex> guard(s.lock);
    std::cerr.write(line.data(), static_cast<std::streamsize>(line.size()));
    std::cerr.flush();
}

}  // namespace

std::string groupDigits(unsigned long long n) {
    std::string digits = std::to_string(n);
    std::string out;
    const std::size_t len = digits.size();
    for (std::size_t i = 0; i < len; ++i) {
        if (i > 0 && (len - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return out;
}

void report(Kind kind, const char* message) {
    State& s = state();
    const int k = static_cast<int>(kind);
    if (s.limited.load(std::memory_order_relaxed)) {
        const unsigned long long n = s.seen[k].fetch_add(1, std::memory_order_relaxed);
        if (n >= static_cast<unsigned long long>(kShownPerKind)) return;
        if (n == 0) {
            std::lock_guard<std::mutex> guard(s.lock);
            s.text[k] = message;
        }
    }
    std::string line(message);
    line += '\n';
    writeLine(s, line);
}

QueryScope::QueryScope() {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    if (s.openScopes++ == 0) {
        for (auto& n : s.seen) n.store(0, std::memory_order_relaxed);
        s.limited.store(true, std::memory_order_relaxed);
    }
}

QueryScope::~QueryScope() {
    State& s = state();
    std::string summary;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        if (--s.openScopes != 0) return;
        s.limited.store(false, std::memory_order_relaxed);
        for (int k = 0; k < kKinds; ++k) {
            const unsigned long long n = s.seen[k].exchange(0, std::memory_order_relaxed);
            if (n > static_cast<unsigned long long>(kShownPerKind) && s.text[k] != nullptr) {
                summary += s.text[k];
                summary += " ... and ";
                summary += groupDigits(n - static_cast<unsigned long long>(kShownPerKind));
                summary += " more\n";
            }
        }
    }
    if (!summary.empty()) writeLine(s, summary);
}

}  // namespace GmDiagnostics
