#pragma once

#include <vector>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>

// Facade over one heap-allocated GmBoundingVolumeHierarchy that it creates and destroys.
//
// operator= is deliberately shallow: it copies only the hierarchy pointer, so that afterwards
// both facades share one hierarchy and the target's previous hierarchy is not released. The
// host must then make sure that only one of the two facades destroys it. Copy construction
// makes an independent deep copy.
class QUARRYGEOM_API GmBoundingTree {
public:
    GmBoundingTree(GmTriangleMesh* mesh, const std::vector<GmTVector<double>>& positions,
                   const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);
    GmBoundingTree(GmTriangleMesh* mesh, double thickness, const GmDisabledData* disabled = nullptr,
                   const GmFrozenData* frozen = nullptr);
    explicit GmBoundingTree(GmTriangleMesh* mesh, const GmDisabledData* disabled = nullptr,
                            const GmFrozenData* frozen = nullptr);
    GmBoundingTree(const GmBoundingTree& other);
    GmBoundingTree& operator=(const GmBoundingTree& other);
    ~GmBoundingTree();

    static GmBoundingVolumeHierarchy* create(GmTriangleMesh* mesh, const std::vector<GmTVector<double>>& positions,
                                             const GmDisabledData* disabled, const GmFrozenData* frozen);
    static GmBoundingVolumeHierarchy* create(GmTriangleMesh* mesh, double thickness, const GmDisabledData* disabled,
                                             const GmFrozenData* frozen);
    static GmBoundingVolumeHierarchy* create(GmTriangleMesh* mesh, const GmDisabledData* disabled,
                                             const GmFrozenData* frozen);

    // Rebuild / refit the existing hierarchy in the given mode (the node count is kept).
    void build(const std::vector<GmTVector<double>>& positions, const GmDisabledData* disabled = nullptr,
               const GmFrozenData* frozen = nullptr);
    void build(double thickness, const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);
    void build(const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);
    void refit(const std::vector<GmTVector<double>>& positions, const GmDisabledData* disabled = nullptr,
               const GmFrozenData* frozen = nullptr);
    void refit(double thickness, const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);
    void refit(const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);
    // Refit in the matching mode when doRefit is true; nothing otherwise.
    void update(const std::vector<GmTVector<double>>& positions, bool doRefit, const GmDisabledData* disabled = nullptr,
                const GmFrozenData* frozen = nullptr);
    void update(double thickness, bool doRefit, const GmDisabledData* disabled = nullptr,
                const GmFrozenData* frozen = nullptr);
    void update(bool doRefit, const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);

    // Copy of the root box; the empty box when there is no hierarchy or the mesh has no faces.
    GmAxisAlignedBox getRootAxisAlignedBox() const;
    // Root box overlap.
    bool operator&(const GmAxisAlignedBox& box) const;

    GmBoundingVolumeHierarchy* getHierarchy() const { return _hierarchy; }
    GmTriangleMesh* getTriangleMesh() const;
    const GmDisabledData* getDisabledData() const;
    const GmFrozenData* getFrozenData() const;
    void setDisabledData(const GmDisabledData* disabled);
    void setFrozenData(const GmFrozenData* frozen);
    bool ignoreFrozen() const;
    void setIgnoreFrozen(bool ignore);
    // Records of the continuous-time self query (GmSelfContactRecords in GmBoundingVolumeHierarchy.h).
    GmSelfContactRecords getSelfContactRecords() const;
    void setSelfContactRecords(GmSelfContactRecords mode);
    const GmIntersection::MeshTests& getMeshTests() const;
    GmIntersection::MeshTests& getMeshTests();
    void setMeshTests(const GmIntersection::MeshTests& tests);
    void drawTree(int level) const { _hierarchy->drawTree(level); }

    // ---- Point queries ------------------------------------------------------------------
    double findClosestPoint(const GmTVector<double>& p, GmTVector<double>& closest, GmTVector<double>& normal,
                            int& face, double& s, double& t, GmNormalTests* tests, bool includeDisabled) const;
    double findClosestPoint(const GmTVector<double>& p, GmTVector<double>& closest, int& face,
                            GmTVector<double>& normal, bool& pinched, bool checkInside, bool includeDisabled,
                            const SelfIntersectionInfo* info = nullptr, int pinchSide = 0) const;
    double findClosestPointWithHint(const GmTVector<double>& p, GmTVector<double>& closest, int& face,
                                    GmTVector<double>& normal, GmGeometry::PointOnTriType& type, bool& pinched,
                                    bool checkInside, bool includeDisabled, const SelfIntersectionInfo* info,
                                    int pinchSide, int hint) const;
    double findClosestPointBruteForce(const GmTVector<double>& p, GmTVector<double>& closest, int& face,
                                      GmTVector<double>& normal, bool includeDisabled) const;
    double getNearestVertex(const GmTVector<double>& p, int& vertex, bool includeDisabled) const;
    bool isInsideMesh(const GmTVector<double>& p, bool includeDisabled) const;
    bool prepareInsideQueries(bool includeDisabled) const;
    bool insideQueriesPrepared(bool includeDisabled) const;
    bool preparePointSearches() const;
    bool isMeshClosed(bool includeDisabled) const;
    bool isBoundaryEdge(int edge, bool includeDisabled) const;
    bool isBoundaryVertex(int vertex, bool includeDisabled) const;
    bool isBoundaryPoint(int face, GmGeometry::PointOnTriType type, bool includeDisabled) const;
    int getClosestFaceSet(int face, GmGeometry::PointOnTriType type, std::vector<int>& faces) const;
    bool pointsInsideMesh(const GmBoundingTree& other, std::vector<GmInsideInfo>& results, bool append,
                          bool includeDisabled, int objectIndex1 = -1, int objectIndex2 = -1,
                          const SelfIntersectionInfo* info = nullptr) const;
    // Vertices of this tree's mesh (object objectIndex) inside each tree of 'trees' (object
    // objectIndices[k], pinch information infos[k], null for none).
    bool intersect(const std::vector<const GmBoundingTree*>& trees, const std::vector<const MultiIntersectionInfo*>& infos,
                   int objectIndex, std::vector<int>& objectIndices, std::vector<GmInsideInfo>& results, bool append,
                   bool includeDisabled, GmBVHMetrics& metrics) const;

    // ---- Ray queries --------------------------------------------------------------------
    bool intersect(const GmRay& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<1, 0, 0>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<-1, 0, 0>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<0, 1, 0>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<0, -1, 0>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<0, 0, 1>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<0, 0, -1>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    // Nearest face the ray meets, its parameter t, ties to the smallest face index (an addition
    // to the every-hit queries; see GmBoundingVolumeHierarchy::intersectFirst).
    bool intersectFirst(const GmRay& ray, GmPointIntersectionInfo& hit, double& t,
                        bool includeDisabled = false) const;
    bool intersectFirst(const GmRay& ray, GmPointIntersectionInfo& hit, bool includeDisabled = false) const;
    // Brings the general rays' wide copy up to date now (see
    // GmBoundingVolumeHierarchy::prepareRayQueries).
    bool prepareRayQueries() const;

    // Collision traversals (implemented in GmBVHCollision.cpp)
    // Each operation twice: with explicit component tests, and with a bool choosing them
    // (true: vertex-face tests 0x7 only, false: all fifteen tests 0x7fff).
    bool continuousTimeSelfIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                     const std::vector<GmTVector<double>>& positions,
                                     const GmIntersection::ComponentTests& componentTests, bool append,
                                     bool includeDisabled, int objectIndex, GmBVHMetrics& metrics) const;
    bool continuousTimeSelfIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                     const std::vector<GmTVector<double>>& positions, bool vertexFaceOnly,
                                     bool append, bool includeDisabled, int objectIndex, GmBVHMetrics& metrics) const;
    bool continuousTimeIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                 const std::vector<GmTVector<double>>& positions, const GmBoundingTree& other,
                                 const std::vector<GmTVector<double>>& otherPositions,
                                 const SelfIntersectionInfo* info1, const SelfIntersectionInfo* info2,
                                 const GmIntersection::ComponentTests& componentTests, bool flag, bool append,
                                 bool includeDisabled, int objectIndex1, int objectIndex2,
                                 GmBVHMetrics& metrics) const;
    bool continuousTimeIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                 const std::vector<GmTVector<double>>& positions, const GmBoundingTree& other,
                                 const std::vector<GmTVector<double>>& otherPositions,
                                 const SelfIntersectionInfo* info1, const SelfIntersectionInfo* info2,
                                 bool vertexFaceOnly, bool flag, bool append, bool includeDisabled, int objectIndex1,
                                 int objectIndex2, GmBVHMetrics& metrics) const;
    bool selfProximityCheck(std::vector<GmProximityCheckInfo>& results, double distance,
                            const GmIntersection::ComponentTests& componentTests, bool append, bool includeDisabled,
                            int objectIndex, double value, GmBVHMetrics& metrics) const;
    bool selfProximityCheck(std::vector<GmProximityCheckInfo>& results, double distance, bool vertexFaceOnly,
                            bool append, bool includeDisabled, int objectIndex, double value,
                            GmBVHMetrics& metrics) const;
    bool proximityCheck(std::vector<GmProximityCheckInfo>& results, double distance, const GmBoundingTree& other,
                        const SelfIntersectionInfo* info, const GmIntersection::ComponentTests& componentTests,
                        bool append, bool includeDisabled, int objectIndex1, int objectIndex2, double value,
                        GmBVHMetrics& metrics) const;
    bool proximityCheck(std::vector<GmProximityCheckInfo>& results, double distance, const GmBoundingTree& other,
                        const SelfIntersectionInfo* info, bool vertexFaceOnly, bool append, bool includeDisabled,
                        int objectIndex1, int objectIndex2, double value, GmBVHMetrics& metrics) const;
    bool selfIntersect(std::vector<GmIntersectionInfo>& results, bool unused, bool append, bool includeDisabled,
                       GmBVHMetrics& metrics) const;
    bool meshMeshIntersect(std::vector<GmIntersectionInfo>& results, const GmBoundingTree& other, bool append,
                           bool includeDisabled, GmBVHMetrics& metrics) const;
    // End of collision traversals

protected:
    // Destroy the hierarchy and create a new one for the same mesh (follows a face-count change).
    void reset(const std::vector<GmTVector<double>>& positions, const GmDisabledData* disabled = nullptr,
               const GmFrozenData* frozen = nullptr);
    void reset(double thickness, const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);
    void reset(const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);

    GmBoundingVolumeHierarchy* _hierarchy;
};
