// The demo's characters in the host's model: the walk, the target skeleton (with its BVH layout
// for writing BVH), and the target as a skinned character in a glTF document, so that the demo
// shows the road into the formats artists use.
#pragma once

#include "io/animation_file.h"

namespace kelvara
{

// The built-in walk (MakeDemoSource) read as a file would be.
AnimationFile DemoSourceFile(int frameCount);

// The built-in target (MakeDemoTarget): its skeleton and BVH layout, no motion.
AnimationFile DemoTargetFile();

// The same target as a character: its skeleton under an armature node that scales its
// centimetres to glTF's metres, and a document holding a mesh skinned to it (a box along every
// bone, each box following its bone alone).
AnimationFile DemoCharacterFile();

} // namespace kelvara
