#pragma once

// Public headers of the curves subsystem.
#include <quarrygeom/curves/GmCurveSegment.h>
#include <quarrygeom/curves/GmCurves.h>
#include <quarrygeom/curves/GmPrimitiveInterferenceInfo.h>
#include <quarrygeom/curves/GmSegmentKernels.h>
#include <quarrygeom/curves/GmIntersectorBase.h>
#include <quarrygeom/curves/GmSegmentIntersector.h>
#include <quarrygeom/curves/GmSegmentSelfIntersector.h>
#include <quarrygeom/curves/GmSegmentMeshIntersector.h>
#include <quarrygeom/curves/GmFirstSegmentIntersection.h>
#include <quarrygeom/curves/GmClosestEdgeEdgeProximityOnSingleSegment.h>
#include <quarrygeom/curves/GmGenericBoundingTree.h>
#include <quarrygeom/curves/GmCurveContinuous.h>
