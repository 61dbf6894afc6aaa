// Curve tree: build, refit, reset and checks.

#include <quarrygeom/curves/GmGenericBoundingTree.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "../bvh/GmBVHArgumentChecks.h"
#include "GmCurveBoxes.h"

using GmCurveDetail::BoxInput;
using GmCurveDetail::segmentBox;

namespace {

typedef GmGenericBoundingTree<GmCurves>::Node Node;

// Work item of the build: a segment, its box and its midpoint.
struct Item {
    double mid[3];
    GmAxisAlignedBox box;
    const GmCurveSegment* segment;
};

// ceil(log2 n) for n >= 1.
std::uint64_t depthOf(std::uint64_t n) {
    const std::uint64_t high = 63 - static_cast<std::uint64_t>(__builtin_clzll(n));
    return (n & (n - 1)) == 0 ? high : high + 1;
}

// Segments on the left of a node of n > 2 segments: m = min(n - p, 2p), p the largest power of
// two not above n / 2.
std::uint64_t leftCount(std::uint64_t n) {
    if (n <= 2) return 1;
    const std::uint64_t half = n / 2;
    const std::uint64_t p = std::uint64_t(1) << (63 - __builtin_clzll(half));
    return std::min(n - p, 2 * p);
}

GmAxisAlignedBox zeroBox() { return GmAxisAlignedBox(0.f, 0.f, 0.f, 0.f, 0.f, 0.f); }

}  // namespace

GmGenericBoundingTree<GmCurves>::GmGenericBoundingTree() = default;

GmGenericBoundingTree<GmCurves>::GmGenericBoundingTree(const GmCurves& curves, const Positions& positions,
                                                       double offset, const std::vector<double>* offsets) {
    build(curves, positions, offset, offsets);
}

GmGenericBoundingTree<GmCurves>::~GmGenericBoundingTree() = default;

void GmGenericBoundingTree<GmCurves>::_check(const Positions& p, const std::vector<double>* r) const {
    const std::uint64_t n = topology != nullptr ? topology->getNumberVertices() : 0;
    if (p.size() < n) throw std::invalid_argument("GmGenericBoundingTree: fewer positions than curve vertices");
    if (r != nullptr && r->size() < n)
        throw std::invalid_argument("GmGenericBoundingTree: fewer offsets than curve vertices");
    if (!GmBVHChecks::allFinite(p.data(), n))
        GmBVHChecks::throwNonFinite("GmGenericBoundingTree", "curve vertex", p.data(), n);
    if (r != nullptr)
        for (std::uint64_t v = 0; v < n; ++v)
            if (!std::isfinite((*r)[v]))
                throw std::invalid_argument("GmGenericBoundingTree: offset " + std::to_string(v) + " is not finite");
}

void GmGenericBoundingTree<GmCurves>::reset() {
    topology = nullptr;
    positions = nullptr;
    offset = 0.0;
    offsets = nullptr;
    endPositions = nullptr;
    nodes.clear();
    leaves.clear();
    numberNodes = 0;
    lastIndex = 0;
    depth = 0;
}

void GmGenericBoundingTree<GmCurves>::build(const GmCurves& curves, const Positions& p, double off,
                                            const std::vector<double>* r) {
    reset();
    topology = &curves;
    try {
        _check(p, r);
    } catch (...) {
        reset();
        throw;
    }
    positions = &p;
    offset = off;
    offsets = r;
    if (curves.getNumberPrimitives() > 0) numberNodes = _build();
    std::sort(leaves.begin(), leaves.end());
}

std::uint64_t GmGenericBoundingTree<GmCurves>::_build() {
    const std::vector<const GmCurveSegment*>& prims = topology->getPrimitives();
    const std::uint64_t n = prims.size();
    depth = n > 1 ? depthOf(n) : 0;
    const std::uint64_t length = (std::uint64_t(2) << depth) - 1;
    Node zero;
    zero.box = zeroBox();
    nodes.assign(length, zero);
    lastIndex = length - 1;
    leaves.reserve(n);

    const BoxInput in{positions, offset, offsets, endPositions};
    std::vector<Item> items(n);
    for (std::uint64_t k = 0; k < n; ++k) {
        const GmCurveSegment& s = *prims[k];
        const GmTVector<double>& a = (*positions)[s.vertex0];
        const GmTVector<double>& b = (*positions)[s.vertex1];
        Item& it = items[k];
        it.mid[0] = 0.5 * (a.x + b.x);
        it.mid[1] = 0.5 * (a.y + b.y);
        it.mid[2] = 0.5 * (a.z + b.z);
        it.box = segmentBox(in, s);
        it.segment = &s;
    }

    struct Pending {
        std::uint64_t node, begin, end;
    };
    std::vector<Pending> stack;
    stack.reserve(2 * depth + 2);
    std::uint64_t created = 0;
    Pending cur{0, 0, n};
    for (;;) {
        Node& node = nodes[lastIndex - cur.node];
        GmAxisAlignedBox box = items[cur.begin].box;
        for (std::uint64_t k = cur.begin + 1; k < cur.end; ++k) box.expand(items[k].box);
        node.box = box;
        ++created;
        const std::uint64_t count = cur.end - cur.begin;
        if (count == 1) {
            node.primitive = items[cur.begin].segment;
            leaves.push_back(lastIndex - cur.node);
            if (stack.empty()) break;
            cur = stack.back();
            stack.pop_back();
            continue;
        }
        const std::uint64_t m = leftCount(count);
        if (count > 2) {
            int order[3];
            box.getExtent().getIndexOrdering(order);
            const int axis = order[0];
            Item* first = items.data() + cur.begin;
            auto less = [axis](const Item& x, const Item& y) { return x.mid[axis] < y.mid[axis]; };
            std::nth_element(first, first + m, first + count, less);
            // The left part holds the m smallest; a left part of two is split in ascending order.
            if (m == 2 && less(first[1], first[0])) std::swap(first[0], first[1]);
        }
        stack.push_back({2 * cur.node + 2, cur.begin + m, cur.end});
        cur = {2 * cur.node + 1, cur.begin, cur.begin + m};
    }
    return created;
}

void GmGenericBoundingTree<GmCurves>::buildSwept(const GmCurves& curves, const Positions& p, const Positions& e,
                                                 double off, const std::vector<double>* r) {
    reset();
    topology = &curves;
    try {
        _check(p, r);
        _check(e, nullptr);
    } catch (...) {
        reset();
        throw;
    }
    positions = &p;
    endPositions = &e;
    offset = off;
    offsets = r;
    if (curves.getNumberPrimitives() > 0) numberNodes = _build();
    std::sort(leaves.begin(), leaves.end());
}

void GmGenericBoundingTree<GmCurves>::refitSwept(const Positions& p, const Positions& e, double off,
                                                 const std::vector<double>* r) {
    _check(p, r);
    _check(e, nullptr);
    positions = &p;
    endPositions = &e;
    offset = off;
    offsets = r;
    _refit();
}

void GmGenericBoundingTree<GmCurves>::refit(const Positions& p, double off, const std::vector<double>* r) {
    _check(p, r);
    endPositions = nullptr;
    positions = &p;
    offset = off;
    offsets = r;
    _refit();
}

void GmGenericBoundingTree<GmCurves>::_refit() {
    if (nodes.empty()) return;
    const BoxInput in{positions, offset, offsets, endPositions};
    for (const std::uint64_t pos : leaves) nodes[pos].box = segmentBox(in, *nodes[pos].primitive);
    // Node i sits at position lastIndex - i: children (higher indices) come before parents.
    const std::uint64_t length = nodes.size();
    for (std::uint64_t pos = length / 2 + 1; pos < length; ++pos) {
        Node& node = nodes[pos];
        if (node.primitive != nullptr) continue;
        const std::uint64_t i = lastIndex - pos;
        GmAxisAlignedBox box = nodes[lastIndex - (2 * i + 1)].box;
        box.expand(nodes[lastIndex - (2 * i + 2)].box);
        node.box = box;
    }
}

void GmGenericBoundingTree<GmCurves>::setNodeFlags(std::uint64_t i, bool disabled, bool frozen) {
    Node& node = nodes[lastIndex - i];
    node.disabled = disabled;
    node.frozen = frozen;
}
