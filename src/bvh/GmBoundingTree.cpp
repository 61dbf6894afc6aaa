#include <quarrygeom/bvh/GmBoundingTree.h>

#include <cfloat>

#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/pinch/MultiIntersectionInfo.h>

// ---- Construction -----------------------------------------------------------------------

GmBoundingVolumeHierarchy* GmBoundingTree::create(GmTriangleMesh* mesh, const std::vector<GmTVector<double>>& positions,
                                                  const GmDisabledData* disabled, const GmFrozenData* frozen) {
    return new GmBoundingVolumeHierarchy(mesh, positions, disabled, frozen);
}

GmBoundingVolumeHierarchy* GmBoundingTree::create(GmTriangleMesh* mesh, double thickness,
                                                  const GmDisabledData* disabled, const GmFrozenData* frozen) {
    return new GmBoundingVolumeHierarchy(mesh, thickness, disabled, frozen);
}

GmBoundingVolumeHierarchy* GmBoundingTree::create(GmTriangleMesh* mesh, const GmDisabledData* disabled,
                                                  const GmFrozenData* frozen) {
    return new GmBoundingVolumeHierarchy(mesh, disabled, frozen);
}

GmBoundingTree::GmBoundingTree(GmTriangleMesh* mesh, const std::vector<GmTVector<double>>& positions,
                               const GmDisabledData* disabled, const GmFrozenData* frozen)
    : _hierarchy(create(mesh, positions, disabled, frozen)) {}

GmBoundingTree::GmBoundingTree(GmTriangleMesh* mesh, double thickness, const GmDisabledData* disabled,
                               const GmFrozenData* frozen)
    : _hierarchy(create(mesh, thickness, disabled, frozen)) {}

GmBoundingTree::GmBoundingTree(GmTriangleMesh* mesh, const GmDisabledData* disabled, const GmFrozenData* frozen)
    : _hierarchy(create(mesh, disabled, frozen)) {}

GmBoundingTree::GmBoundingTree(const GmBoundingTree& other)
    : _hierarchy(other._hierarchy != nullptr ? new GmBoundingVolumeHierarchy(*other._hierarchy) : nullptr) {}

GmBoundingTree& GmBoundingTree::operator=(const GmBoundingTree& other) {
    // Shallow by design: both facades now refer to one hierarchy.
    _hierarchy = other._hierarchy;
    return *this;
}

GmBoundingTree::~GmBoundingTree() { delete _hierarchy; }

void GmBoundingTree::reset(const std::vector<GmTVector<double>>& positions, const GmDisabledData* disabled,
                           const GmFrozenData* frozen) {
    GmTriangleMesh* mesh = getTriangleMesh();
    delete _hierarchy;
    _hierarchy = nullptr;
    _hierarchy = create(mesh, positions, disabled, frozen);
}

void GmBoundingTree::reset(double thickness, const GmDisabledData* disabled, const GmFrozenData* frozen) {
    GmTriangleMesh* mesh = getTriangleMesh();
    delete _hierarchy;
    _hierarchy = nullptr;
    _hierarchy = create(mesh, thickness, disabled, frozen);
}

void GmBoundingTree::reset(const GmDisabledData* disabled, const GmFrozenData* frozen) {
    GmTriangleMesh* mesh = getTriangleMesh();
    delete _hierarchy;
    _hierarchy = nullptr;
    _hierarchy = create(mesh, disabled, frozen);
}

// ---- Build, refit, update ---------------------------------------------------------------

void GmBoundingTree::build(const std::vector<GmTVector<double>>& positions, const GmDisabledData* disabled,
                           const GmFrozenData* frozen) {
    if (_hierarchy != nullptr) _hierarchy->build(positions, disabled, frozen);
}
void GmBoundingTree::build(double thickness, const GmDisabledData* disabled, const GmFrozenData* frozen) {
    if (_hierarchy != nullptr) _hierarchy->build(thickness, disabled, frozen);
}
void GmBoundingTree::build(const GmDisabledData* disabled, const GmFrozenData* frozen) {
    if (_hierarchy != nullptr) _hierarchy->build(disabled, frozen);
}
void GmBoundingTree::refit(const std::vector<GmTVector<double>>& positions, const GmDisabledData* disabled,
                           const GmFrozenData* frozen) {
    if (_hierarchy != nullptr) _hierarchy->refit(positions, disabled, frozen);
}
void GmBoundingTree::refit(double thickness, const GmDisabledData* disabled, const GmFrozenData* frozen) {
    if (_hierarchy != nullptr) _hierarchy->refit(thickness, disabled, frozen);
}
void GmBoundingTree::refit(const GmDisabledData* disabled, const GmFrozenData* frozen) {
    if (_hierarchy != nullptr) _hierarchy->refit(disabled, frozen);
}
void GmBoundingTree::update(const std::vector<GmTVector<double>>& positions, bool doRefit,
                            const GmDisabledData* disabled, const GmFrozenData* frozen) {
    if (doRefit) refit(positions, disabled, frozen);
}
void GmBoundingTree::update(double thickness, bool doRefit, const GmDisabledData* disabled,
                            const GmFrozenData* frozen) {
    if (doRefit) refit(thickness, disabled, frozen);
}
void GmBoundingTree::update(bool doRefit, const GmDisabledData* disabled, const GmFrozenData* frozen) {
    if (doRefit) refit(disabled, frozen);
}

// ---- Root box ---------------------------------------------------------------------------

GmAxisAlignedBox GmBoundingTree::getRootAxisAlignedBox() const {
    if (_hierarchy == nullptr || _hierarchy->empty()) return GmAxisAlignedBox();  // the empty box
    return _hierarchy->getRootBoundingVolume();
}

bool GmBoundingTree::operator&(const GmAxisAlignedBox& box) const {
    return _hierarchy != nullptr && _hierarchy->intersect(box);
}

// ---- Accessors --------------------------------------------------------------------------

GmTriangleMesh* GmBoundingTree::getTriangleMesh() const {
    return _hierarchy != nullptr ? _hierarchy->getTriangleMesh() : nullptr;
}
const GmDisabledData* GmBoundingTree::getDisabledData() const {
    return _hierarchy != nullptr ? _hierarchy->getDisabledData() : nullptr;
}
const GmFrozenData* GmBoundingTree::getFrozenData() const {
    return _hierarchy != nullptr ? _hierarchy->getFrozenData() : nullptr;
}
void GmBoundingTree::setDisabledData(const GmDisabledData* disabled) { _hierarchy->setDisabledData(disabled); }
void GmBoundingTree::setFrozenData(const GmFrozenData* frozen) { _hierarchy->setFrozenData(frozen); }
bool GmBoundingTree::ignoreFrozen() const { return _hierarchy != nullptr && _hierarchy->ignoreFrozen(); }
void GmBoundingTree::setIgnoreFrozen(bool ignore) { _hierarchy->setIgnoreFrozen(ignore); }
GmSelfContactRecords GmBoundingTree::getSelfContactRecords() const {
    return _hierarchy != nullptr ? _hierarchy->getSelfContactRecords() : GmSelfContactRecords::EveryTrianglePair;
}
void GmBoundingTree::setSelfContactRecords(GmSelfContactRecords mode) { _hierarchy->setSelfContactRecords(mode); }
const GmIntersection::MeshTests& GmBoundingTree::getMeshTests() const {
    return static_cast<const GmBoundingVolumeHierarchy*>(_hierarchy)->getMeshTests();
}
GmIntersection::MeshTests& GmBoundingTree::getMeshTests() { return _hierarchy->getMeshTests(); }
void GmBoundingTree::setMeshTests(const GmIntersection::MeshTests& tests) { _hierarchy->setMeshTests(tests); }

// ---- Point queries ----------------------------------------------------------------------

double GmBoundingTree::findClosestPoint(const GmTVector<double>& p, GmTVector<double>& closest,
                                        GmTVector<double>& normal, int& face, double& s, double& t,
                                        GmNormalTests* tests, bool includeDisabled) const {
    return _hierarchy->findClosestPoint(p, closest, normal, face, s, t, tests, includeDisabled);
}
double GmBoundingTree::findClosestPoint(const GmTVector<double>& p, GmTVector<double>& closest, int& face,
                                        GmTVector<double>& normal, bool& pinched, bool checkInside,
                                        bool includeDisabled, const SelfIntersectionInfo* info, int pinchSide) const {
    return _hierarchy->findClosestPoint(p, closest, face, normal, pinched, checkInside, includeDisabled, info,
                                        pinchSide);
}
double GmBoundingTree::findClosestPointWithHint(const GmTVector<double>& p, GmTVector<double>& closest, int& face,
                                                GmTVector<double>& normal, GmGeometry::PointOnTriType& type,
                                                bool& pinched, bool checkInside, bool includeDisabled,
                                                const SelfIntersectionInfo* info, int pinchSide, int hint) const {
    return _hierarchy->findClosestPointWithHint(p, closest, face, normal, type, pinched, checkInside,
                                                includeDisabled, info, pinchSide, hint);
}
double GmBoundingTree::findClosestPointBruteForce(const GmTVector<double>& p, GmTVector<double>& closest, int& face,
                                                  GmTVector<double>& normal, bool includeDisabled) const {
    return _hierarchy->findClosestPointBruteForce(p, closest, face, normal, includeDisabled);
}
double GmBoundingTree::getNearestVertex(const GmTVector<double>& p, int& vertex, bool includeDisabled) const {
    return _hierarchy->findClosestVertex(p, vertex, includeDisabled);
}
bool GmBoundingTree::isInsideMesh(const GmTVector<double>& p, bool includeDisabled) const {
    return _hierarchy->isInsideMesh(p, includeDisabled);
}
bool GmBoundingTree::prepareInsideQueries(bool includeDisabled) const {
    return _hierarchy->prepareInsideQueries(includeDisabled);
}
bool GmBoundingTree::insideQueriesPrepared(bool includeDisabled) const {
    return _hierarchy->insideQueriesPrepared(includeDisabled);
}
bool GmBoundingTree::preparePointSearches() const { return _hierarchy->preparePointSearches(); }
bool GmBoundingTree::isMeshClosed(bool includeDisabled) const { return _hierarchy->isMeshClosed(includeDisabled); }
bool GmBoundingTree::isBoundaryEdge(int edge, bool includeDisabled) const {
    return _hierarchy->isBoundaryEdge(edge, includeDisabled);
}
bool GmBoundingTree::isBoundaryVertex(int vertex, bool includeDisabled) const {
    return _hierarchy->isBoundaryVertex(vertex, includeDisabled);
}
bool GmBoundingTree::isBoundaryPoint(int face, GmGeometry::PointOnTriType type, bool includeDisabled) const {
    return _hierarchy->isBoundaryPoint(face, type, includeDisabled);
}
int GmBoundingTree::getClosestFaceSet(int face, GmGeometry::PointOnTriType type, std::vector<int>& faces) const {
    return _hierarchy->getClosestFaceSet(face, type, faces);
}
bool GmBoundingTree::pointsInsideMesh(const GmBoundingTree& other, std::vector<GmInsideInfo>& results, bool append,
                                      bool includeDisabled, int objectIndex1, int objectIndex2,
                                      const SelfIntersectionInfo* info) const {
    return _hierarchy->pointsInsideMesh(*other._hierarchy, results, append, includeDisabled, objectIndex1,
                                        objectIndex2, info);
}
bool GmBoundingTree::intersect(const std::vector<const GmBoundingTree*>& trees,
                               const std::vector<const MultiIntersectionInfo*>& infos, int objectIndex,
                               std::vector<int>& objectIndices, std::vector<GmInsideInfo>& results, bool append,
                               bool includeDisabled, GmBVHMetrics& metrics) const {
    std::vector<const GmBoundingVolumeHierarchy*> others;
    others.reserve(trees.size());
    for (const GmBoundingTree* t : trees) others.push_back(t != nullptr ? t->_hierarchy : nullptr);
    // Each object's pinch information decides the inside test against that object.
    std::vector<const SelfIntersectionInfo*> pinch(trees.size(), nullptr);
    for (size_t k = 0; k < trees.size() && k < infos.size(); ++k) pinch[k] = infos[k];
    return _hierarchy->pointsInsideMeshes(others, pinch, objectIndex, objectIndices, results, append, includeDisabled,
                                          metrics);
}

// ---- Ray queries ------------------------------------------------------------------------

bool GmBoundingTree::intersect(const GmRay& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                               bool includeDisabled) const {
    return _hierarchy->intersect(ray, hits, append, includeDisabled);
}
bool GmBoundingTree::intersect(const GmRayAxis<1, 0, 0>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                               bool includeDisabled) const {
    return _hierarchy->intersect(ray, hits, append, includeDisabled);
}
bool GmBoundingTree::intersect(const GmRayAxis<-1, 0, 0>& ray, std::vector<GmPointIntersectionInfo>& hits,
                               bool append, bool includeDisabled) const {
    return _hierarchy->intersect(ray, hits, append, includeDisabled);
}
bool GmBoundingTree::intersect(const GmRayAxis<0, 1, 0>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                               bool includeDisabled) const {
    return _hierarchy->intersect(ray, hits, append, includeDisabled);
}
bool GmBoundingTree::intersect(const GmRayAxis<0, -1, 0>& ray, std::vector<GmPointIntersectionInfo>& hits,
                               bool append, bool includeDisabled) const {
    return _hierarchy->intersect(ray, hits, append, includeDisabled);
}
bool GmBoundingTree::intersect(const GmRayAxis<0, 0, 1>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                               bool includeDisabled) const {
    return _hierarchy->intersect(ray, hits, append, includeDisabled);
}
bool GmBoundingTree::intersect(const GmRayAxis<0, 0, -1>& ray, std::vector<GmPointIntersectionInfo>& hits,
                               bool append, bool includeDisabled) const {
    return _hierarchy->intersect(ray, hits, append, includeDisabled);
}
bool GmBoundingTree::intersectFirst(const GmRay& ray, GmPointIntersectionInfo& hit, double& t,
                                    bool includeDisabled) const {
    return _hierarchy->intersectFirst(ray, hit, t, includeDisabled);
}
bool GmBoundingTree::intersectFirst(const GmRay& ray, GmPointIntersectionInfo& hit, bool includeDisabled) const {
    return _hierarchy->intersectFirst(ray, hit, includeDisabled);
}
bool GmBoundingTree::prepareRayQueries() const { return _hierarchy->prepareRayQueries(); }
