#include "road/chains.h"

#include <cstddef>

namespace kelvara
{

namespace
{

std::size_t At(int i)
{
  return static_cast<std::size_t>(i);
}

// The turn of a unit quaternion raised to power t in [0, 1], along the shorter arc.
Quaternion Power(const Quaternion& q, double t)
{
  return Slerp(Quaternion{}, q, t);
}

} // namespace

std::vector<JointChain> FindChains(const Skeleton& skeleton, const std::vector<bool>& mapped)
{
  const std::size_t n = skeleton.joints.size();
  // Per joint: how many of its children have a mapped joint at or below them. Children come
  // after their parents, so one pass from the leaves up counts them.
  std::vector<bool> leadsToMapped(n, false);
  std::vector<int> branches(n, 0);
  for (std::size_t i = n; i-- > 0;)
  {
    leadsToMapped[i] = leadsToMapped[i] || mapped[i];
    const int p = skeleton.joints[i].parent;
    if (p >= 0 && leadsToMapped[i])
    {
      leadsToMapped[At(p)] = true;
      ++branches[At(p)];
    }
  }
  std::vector<JointChain> chains;
  for (std::size_t e = 0; e < n; ++e)
  {
    if (!mapped[e])
      continue;
    JointChain chain;
    chain.end = static_cast<int>(e);
    int j = skeleton.joints[e].parent;
    while (j >= 0 && !mapped[At(j)] && branches[At(j)] == 1)
    {
      chain.between.insert(chain.between.begin(), j);
      j = skeleton.joints[At(j)].parent;
    }
    if (j >= 0 && mapped[At(j)] && !chain.between.empty())
    {
      chain.top = j;
      chains.push_back(std::move(chain));
    }
  }
  return chains;
}

void SpreadChains(const std::vector<JointChain>& chains, const std::vector<telvo::Matrix>& rest, Clip& clip,
                  int first, int last)
{
  const std::size_t n = static_cast<std::size_t>(clip.jointCount);
  for (const JointChain& chain : chains)
  {
    // Rest rotations relative to the top, of every joint in between and of the end.
    const Quaternion topRestInverse = Conjugate(FromMatrix(rest[At(chain.top)]));
    std::vector<Quaternion> restFromTop;
    for (int j : chain.between)
      restFromTop.push_back(topRestInverse * FromMatrix(rest[At(j)]));
    const Quaternion endRestFromTop = topRestInverse * FromMatrix(rest[At(chain.end)]);
    const double share = 1.0 / static_cast<double>(chain.between.size() + 1);
    for (int frame = first; frame < last; ++frame)
    {
      Quaternion* local = clip.rotations.data() + static_cast<std::size_t>(frame) * n;
      // The end's rotation relative to the top as the frame has it, and the turn beyond rest.
      Quaternion endFromTop{};
      for (int j : chain.between)
        endFromTop = endFromTop * local[At(j)];
      endFromTop = Normalized(endFromTop * local[At(chain.end)]);
      Quaternion turn = Normalized(endFromTop * Conjugate(endRestFromTop));
      if (turn.w < 0.0)
        turn = {-turn.w, -turn.x, -turn.y, -turn.z};
      const Quaternion step = Power(turn, share);
      // Joint k of the chain (1-based) stands at step^k times its rest relative rotation.
      Quaternion previous{}; // relative to the top: the top itself
      Quaternion turned{};
      for (std::size_t k = 0; k < chain.between.size(); ++k)
      {
        turned = Normalized(turned * step);
        const Quaternion current = Normalized(turned * restFromTop[k]);
        local[At(chain.between[k])] = Normalized(Conjugate(previous) * current);
        previous = current;
      }
      local[At(chain.end)] = Normalized(Conjugate(previous) * endFromTop);
    }
  }
}

} // namespace kelvara
