#include <quarrygeom/mesh/GmDisabledData.h>

#include <algorithm>
#include <bitset>

#include <quarrygeom/mesh/GmAdjacentOrphanSet.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

// ---------------------------------------------------------------------------
// GmFaceBits

void GmFaceBits::resize(int numFaces) {
    if (numFaces < 0) numFaces = 0;
    _numFaces = numFaces;
    _words.resize((static_cast<std::size_t>(numFaces) + 31) / 32, 0u);
    // Bits beyond the last face stay clear.
    if (numFaces % 32 != 0 && !_words.empty()) _words.back() &= (1u << (numFaces % 32)) - 1u;
}

bool GmFaceBits::assign(int f, bool on) {
    if (f >= _numFaces) resize(f + 1);
    std::uint32_t& w = _words[static_cast<std::size_t>(f) >> 5];
    const std::uint32_t bit = 1u << (static_cast<unsigned>(f) & 31u);
    const bool old = (w & bit) != 0;
    if (on)
        w |= bit;
    else
        w &= ~bit;
    return old;
}

void GmFaceBits::clearAll() { std::fill(_words.begin(), _words.end(), 0u); }

unsigned int GmFaceBits::countSet() const {
    unsigned int n = 0;
    for (std::uint32_t w : _words) n += static_cast<unsigned int>(std::bitset<32>(w).count());
    return n;
}

void GmFaceBits::setWords(const std::vector<std::uint32_t>& words, int numFaces) {
    _words = words;
    resize(numFaces);
}

// ---------------------------------------------------------------------------
// GmDisabledData

GmDisabledData::GmDisabledData(GmTriangleMesh* mesh) : _mesh(mesh) {
    if (mesh) _bits.resize(mesh->getNumberFaces());
}

GmDisabledData::GmDisabledData(const GmDisabledData& other)
    : _mesh(other._mesh), _count(other._count), _bits(other._bits) {}

GmDisabledData& GmDisabledData::operator=(const GmDisabledData& other) {
    if (this != &other) {
        _discardOrphanSet();
        _mesh = other._mesh;
        _count = other._count;
        _bits = other._bits;
    }
    return *this;
}

GmDisabledData::~GmDisabledData() { _discardOrphanSet(); }

void GmDisabledData::_discardOrphanSet() { delete _orphanSet.exchange(nullptr, std::memory_order_acq_rel); }

void GmDisabledData::setMesh(GmTriangleMesh* mesh) {
    _discardOrphanSet();
    _mesh = mesh;
    _count = 0;
    _bits = GmFaceBits(mesh ? mesh->getNumberFaces() : 0);
}

void GmDisabledData::setDisabledCount(unsigned int count) {
    if (count != _count) _discardOrphanSet();
    _count = count;
}

void GmDisabledData::setFaceDisabled(int f, bool disabled) {
    const bool old = _bits.assign(f, disabled);
    if (old == disabled) return;
    _discardOrphanSet();
    if (disabled)
        ++_count;
    else if (_count > 0)
        --_count;
}

void GmDisabledData::disableFaces(const std::vector<int>& faces) {
    for (int f : faces) setFaceDisabled(f, true);
}

void GmDisabledData::enableFaces(const std::vector<int>& faces) {
    for (int f : faces) setFaceDisabled(f, false);
}

void GmDisabledData::clear() {
    _discardOrphanSet();
    _bits.clearAll();
    _count = 0;
}

void GmDisabledData::setWords(const std::vector<std::uint32_t>& words, unsigned int count) {
    _discardOrphanSet();
    const int faces = _mesh ? std::max(_mesh->getNumberFaces(), static_cast<int>(words.size() * 32))
                            : static_cast<int>(words.size() * 32);
    _bits.setWords(words, faces);
    _count = count;
}

const GmAdjacentOrphanSet* GmDisabledData::getOrphanSet() const {
    if (!_mesh) return nullptr;
    if (_count == 0) return _mesh->getOrphanSet();
    GmAdjacentOrphanSet* set = _orphanSet.load(std::memory_order_acquire);
    if (set) return set;
    GmAdjacentOrphanSet* built = new GmAdjacentOrphanSet(_mesh, this);
    GmAdjacentOrphanSet* expected = nullptr;
    if (_orphanSet.compare_exchange_strong(expected, built, std::memory_order_acq_rel)) return built;
    delete built;
    return expected;
}

// ---------------------------------------------------------------------------
// GmFrozenData

GmFrozenData::GmFrozenData(const GmTriangleMesh* mesh) : _bits(mesh ? mesh->getNumberFaces() : 0) {}

void GmFrozenData::setFaceFrozen(int f, bool frozen) {
    const bool old = _bits.assign(f, frozen);
    if (old == frozen) return;
    if (frozen)
        ++_count;
    else if (_count > 0)
        --_count;
}

void GmFrozenData::freezeFaces(const std::vector<int>& faces) {
    for (int f : faces) setFaceFrozen(f, true);
}

void GmFrozenData::clear() {
    _bits.clearAll();
    _count = 0;
}

void GmFrozenData::setWords(const std::vector<std::uint32_t>& words, int numFaces) {
    _bits.setWords(words, numFaces);
    _count = _bits.countSet();
}
