#pragma once

// Pinch classification of a self-intersecting collision mesh. Queries that use it
// take a const pointer; null means no classification is available.
class SelfIntersectionInfo;
// Per-object pinch information for the multi-object inside query.
class MultiIntersectionInfo;
