#include "cli/device_order.h"

#include <map>

namespace {

class DeviceTree {
  public:
    explicit DeviceTree(const KelContainer& answer)
        : placed_(answer.Has("Values") ? answer.Count("Values") : 0) {
        std::map<KelString, std::uint32_t> indexes;
        for (std::uint32_t i = 0; i < placed_.size(); ++i)
            indexes.emplace(answer.GetContainer("Values", i).GetString("GUID"), i);
        for (std::uint32_t i = 0; i < placed_.size(); ++i) {
            const auto parent = indexes.find(answer.GetContainer("Values", i).GetString("Parent"));
            if (parent == indexes.end() || parent->second == i)
                roots_.push_back(i);
            else
                children_[parent->second].push_back(i);
        }
    }

    KelVector<DeviceRow> Order() {
        for (const std::uint32_t root : roots_)
            Place(root);
        // What is left hangs on no root: parents that name each other.
        for (std::uint32_t i = 0; i < placed_.size(); ++i)
            Place(i);
        return rows_;
    }

  private:
    /// The device and all below it; a stack of its own, for the depth comes from outside.
    void Place(std::uint32_t root) {
        KelVector<DeviceRow> waiting = {{root, 0}};
        while (!waiting.empty()) {
            const DeviceRow row = waiting.back();
            waiting.pop_back();
            if (placed_[row.index]) continue;
            placed_[row.index] = true;
            rows_.push_back(row);
            const KelVector<std::uint32_t>& children = children_[row.index];
            for (auto child = children.rbegin(); child != children.rend(); ++child)
                waiting.push_back({*child, row.depth + 1});
        }
    }

    KelVector<bool> placed_;
    KelVector<std::uint32_t> roots_;
    std::map<std::uint32_t, KelVector<std::uint32_t>> children_;
    KelVector<DeviceRow> rows_;
};

}  // namespace

KelVector<DeviceRow> OrderByParent(const KelContainer& answer) {
    return DeviceTree(answer).Order();
}
