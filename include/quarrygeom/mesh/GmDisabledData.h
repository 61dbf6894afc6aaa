#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include <quarrygeom/core/GmExport.h>

class GmTriangleMesh;
class GmAdjacentOrphanSet;

// Per-face bit array in 32-bit words: face f is bit (f % 32) of word (f / 32).
// Shared storage of the two face masks below.
class QUARRYGEOM_API GmFaceBits {
public:
    GmFaceBits() = default;
    explicit GmFaceBits(int numFaces) { resize(numFaces); }

    // Number of faces covered; new bits are clear.
    void resize(int numFaces);
    int size() const { return _numFaces; }

    bool test(int f) const {
        const std::size_t w = static_cast<std::size_t>(f) >> 5;
        return w < _words.size() && ((_words[w] >> (static_cast<unsigned>(f) & 31u)) & 1u) != 0;
    }
    // Sets or clears bit f (grows the array when f is beyond it); returns the old bit.
    bool assign(int f, bool on);
    void clearAll();
    // Number of set bits.
    unsigned int countSet() const;

    const std::vector<std::uint32_t>& getWords() const { return _words; }
    std::uint32_t getWord(int w) const { return _words[static_cast<std::size_t>(w)]; }
    // Replaces the words; faces beyond numFaces are ignored.
    void setWords(const std::vector<std::uint32_t>& words, int numFaces);

private:
    std::vector<std::uint32_t> _words;
    int _numFaces = 0;
};

// Faces switched off for the geometry queries and hierarchies, without rebuilding
// the mesh. The disabled count is what consumers test first: zero means nothing is
// disabled and the mask then behaves exactly like no mask, whatever its bits say.
//
// setFaceDisabled / disableFaces keep the count equal to the number of disabled
// faces. A host that counts disabled components differently (e.g. one per
// switched-off piece) may set the count itself with setDisabledCount.
class QUARRYGEOM_API GmDisabledData {
public:
    explicit GmDisabledData(GmTriangleMesh* mesh = nullptr);
    // Copies mesh, count and bits; the copy builds its own orphan set on demand.
    GmDisabledData(const GmDisabledData& other);
    GmDisabledData& operator=(const GmDisabledData& other);
    ~GmDisabledData();

    GmTriangleMesh* getMesh() const { return _mesh; }
    // Rebinds the mask to another mesh: bits sized to its faces and cleared, count 0.
    void setMesh(GmTriangleMesh* mesh);

    // Disabled count (zero: nothing disabled).
    unsigned int getDisabledCount() const { return _count; }
    unsigned int getCount() const { return _count; }
    void setDisabledCount(unsigned int count);

    // The face's bit, regardless of the count.
    bool isFaceDisabled(int f) const { return _bits.test(f); }
    // True when the mask is in effect (count non-zero) and the face's bit is set.
    bool isDisabled(int f) const { return _count != 0 && _bits.test(f); }
    // Static form that also accepts a null mask.
    static bool isDisabled(const GmDisabledData* mask, int f) { return mask != nullptr && mask->isDisabled(f); }
    // Whether the mask is given and in effect.
    static bool isActive(const GmDisabledData* mask) { return mask != nullptr && mask->_count != 0; }

    // Sets or clears one face's bit, adjusting the count by one when the bit changes.
    void setFaceDisabled(int f, bool disabled = true);
    void disableFaces(const std::vector<int>& faces);
    void enableFaces(const std::vector<int>& faces);
    // Every bit clear, count 0.
    void clear();

    const GmFaceBits& getBits() const { return _bits; }
    const std::vector<std::uint32_t>& getWords() const { return _bits.getWords(); }
    // Raw replacement of bits and count; the caller keeps them consistent.
    void setWords(const std::vector<std::uint32_t>& words, unsigned int count);

    // Orphan set of the mesh with the disabled faces left out. With a count of zero
    // this is the mesh's own orphan set; otherwise it is built on the first request
    // and kept (any change of the mask discards it). Null without a mesh.
    const GmAdjacentOrphanSet* getOrphanSet() const;

private:
    void _discardOrphanSet();

    GmTriangleMesh* _mesh = nullptr;
    unsigned int _count = 0;
    GmFaceBits _bits;
    mutable std::atomic<GmAdjacentOrphanSet*> _orphanSet{nullptr};
};

// Faces that do not move; the hierarchy reads the bits to mark frozen leaves
// (an inner node is frozen when both children are). The count is the number of
// frozen faces; zero makes the mask behave like no mask.
class QUARRYGEOM_API GmFrozenData {
public:
    GmFrozenData() = default;
    explicit GmFrozenData(int numFaces) : _bits(numFaces) {}
    explicit GmFrozenData(const GmTriangleMesh* mesh);

    unsigned int getFrozenCount() const { return _count; }
    unsigned int getCount() const { return _count; }

    bool isFaceFrozen(int f) const { return _bits.test(f); }
    bool isFrozen(int f) const { return _count != 0 && _bits.test(f); }
    static bool isActive(const GmFrozenData* mask) { return mask != nullptr && mask->_count != 0; }

    void resize(int numFaces) { _bits.resize(numFaces); _count = _bits.countSet(); }
    void setFaceFrozen(int f, bool frozen = true);
    void freezeFaces(const std::vector<int>& faces);
    void clear();

    const GmFaceBits& getBits() const { return _bits; }
    const std::vector<std::uint32_t>& getWords() const { return _bits.getWords(); }
    void setWords(const std::vector<std::uint32_t>& words, int numFaces);

private:
    unsigned int _count = 0;
    GmFaceBits _bits;
};
