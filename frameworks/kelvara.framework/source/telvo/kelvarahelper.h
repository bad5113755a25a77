// KelvaraHelper: stateless operations that prepare retargeting data: filling body parts from a
// skeleton by keywords, associating the body parts of two characters, translating a pose from
// source to target node ids, and counting how much of a body part a pose holds.
#pragma once

#include "telvo/characterassociation.h"
#include "telvo/characterbodypart.h"
#include "telvo/characterpose.h"
#include "telvo/charactertree.h"

namespace telvo
{

class KelvaraHelperInterface;
// Shared reference: the helper has no state; one serves any number of calls and threads.
using KelvaraHelperRef = StrongRef<KelvaraHelperInterface>;

// Filled by AssociateBodyPartsByIdentifier; the caller owns it and the operation zeroes it first.
struct AssociationCounters
{
  Int visitedSourceBodyParts = 0; // source body parts visited, matched or not
  Int matchedBodyParts = 0;       // source body parts with a target of the same identifier
  Int sourceSkeletonNodes = 0;    // over matched pairs: the source body part's skeleton nodes
  Int targetSkeletonNodes = 0;    // over matched pairs: the target body part's skeleton nodes
  Int associatedNodePairs = 0;    // over matched pairs: the smaller of the two counts
};

class KelvaraHelperInterface : public virtual ObjectInterface
{
public:
  using Bases = InterfaceList<ObjectInterface>;
  TELVO_INTERFACE_INFO("net.telvo.animation.interface.kelvarahelper", "telvo.KelvaraHelperInterface",
                       "telvo/kelvarahelper.h", "FillBodyPart", "AssociateBodyPartsByIdentifier",
                       "TranslateSrcToDestID", "FindBodyPartMatchingCount")

  // For every body part of the tree, the first skeleton node in pre-order whose name matches one
  // of its keywords and none of its discard keywords becomes its skeleton (at most one node).
  // Keywords match case-insensitively as substrings; "&&" inside a keyword means "and".
  virtual Result<void> FillBodyPart(const CharacterTreeRef& skeleton, const CharacterBodyPartRef& bodyPart) const = 0;
  // Pairs source and target body parts by identifier and their skeleton nodes by position.
  // Errors while visiting one body part are deliberately swallowed: the walk goes on.
  virtual Result<CharacterAssociation> AssociateBodyPartsByIdentifier(const CharacterBodyPartRef& srcBodyPart,
                                                                      const CharacterBodyPartRef& dstBodyPart,
                                                                      AssociationCounters& counters) const = 0;
  // A new pose holding the associated nodes only, in source order, each a private copy carrying
  // the target id; the source pose never changes.
  virtual Result<CharacterPose> TranslateSrcToDestID(const CharacterAssociation& association,
                                                     const CharacterPose& pose) const = 0;
  // How many skeleton nodes of the body part (and, when recursive, of its descendants) the pose
  // holds.
  virtual Result<Int> FindBodyPartMatchingCount(const CharacterBodyPartRef& bodyPart, const CharacterPose& pose,
                                                Bool recursive) const = 0;

  static Result<void> DescribeIO(DataDescriber& describer)
  {
    return CallDescribeEntry("KelvaraHelperImpl", describer);
  }
};

} // namespace telvo
