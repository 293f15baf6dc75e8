#pragma once

#include <atspi/atspi.h>

#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "linux/AtspiBatch.h"
#include "linux/AtspiCache.h"
#include "linux/AtspiWalk.h"

namespace pavix {

// The walk over an application's cache: the tree, roles, states and names come in one answer,
// and what else the outline needs (extents of what shows, text, values, actions) is asked of
// all elements at once. Subtrees the cache leaves out (the rows a GTK tree view makes up on
// demand) are read by the live walk.
class AtspiCachedWalk {
  public:
    // `handles` are libatspi's objects for the elements, by path, for acting on them later.
    AtspiCachedWalk(const std::vector<AtspiCacheItem>& items,
                    std::unordered_map<std::string, AtspiAccessible*> handles, AtspiBatch& batch,
                    AtspiWalkBudget& budget);

    // The tree below the window `frame`, or nothing when the cache does not list it.
    std::optional<AccessibleElement> read(AtspiAccessible* frame);

  private:
    // One element as planned: the questions sent about it and the elements below it; or a
    // child the cache does not list, read live by its index once the batch is answered.
    struct Visit {
        const AtspiCacheItem* item = nullptr;  // none: read live
        int liveIndex = -1;
        AtspiElementRules::Place place;
        AtspiElementRules::Needs needs;
        std::optional<std::size_t> actions, frame, count, text, number;
        std::vector<Visit> children;
    };

    Visit plan(const AtspiCacheItem& item, const AtspiElementRules::Place& place);
    void askText(Visit& visit);
    AccessibleElement assemble(const Visit& visit);
    std::vector<const AtspiCacheItem*> childrenOf(const AtspiCacheItem& item) const;
    AtspiAccessible* handleOf(const std::string& path) const;

    std::unordered_map<std::string, const AtspiCacheItem*> byPath_;
    std::unordered_map<std::string, std::vector<const AtspiCacheItem*>> byParent_;
    std::unordered_map<std::string, AtspiAccessible*> handles_;
    AtspiBatch& batch_;
    AtspiWalkBudget& budget_;
    AtspiAccessible* frame_ = nullptr;
};

}  // namespace pavix
