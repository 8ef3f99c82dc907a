#include "enhance/pass_times.h"

#include <algorithm>
#include <utility>

namespace noxel::tool {

void PassTimes::add(const std::string& pass, uint64_t nanoseconds) {
  auto found = std::find_if(passes_.begin(), passes_.end(), [&](const Pass& known) { return known.name == pass; });
  if (found == passes_.end())
    found = passes_.insert(passes_.begin() + static_cast<ptrdiff_t>(next_), Pass{.name = pass});
  next_ = static_cast<size_t>(found - passes_.begin()) + 1;
  ++found->drawn;
  if (nanoseconds == 0) return;
  found->inFrame += static_cast<double>(nanoseconds) / 1e6;
}

void PassTimes::endFrame() {
  for (Pass& pass : passes_) {
    if (pass.inFrame > 0) pass.ms.add(std::exchange(pass.inFrame, 0));
  }
  next_ = 0;
}

nlohmann::ordered_json PassTimes::json() const {
  double all = 0;
  for (const Pass& pass : passes_) all += pass.ms.sum();
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (const Pass& pass : passes_) {
    rows.push_back({{"pass", pass.name},
                    {"drawn", pass.drawn},
                    {"ms_mean", pass.ms.count() == 0 ? 0 : pass.ms.sum() / static_cast<double>(pass.ms.count())},
                    {"ms_p50", pass.ms.percentile(50)},
                    {"ms_max", pass.ms.max()},
                    {"share", all > 0 ? pass.ms.sum() / all : 0}});
  }
  return rows;
}

void PassTimes::print(std::FILE* out) const {
  std::fprintf(out, "%-24s %6s %8s %8s %8s %7s\n", "pass, ms per frame", "drawn", "mean", "p50", "max", "share");
  for (const auto& row : json()) {
    std::fprintf(out, "%-24s %6lld %8.3f %8.3f %8.3f %5.1f %%\n", row["pass"].get<std::string>().c_str(),
                 static_cast<long long>(row["drawn"].get<int64_t>()), row["ms_mean"].get<double>(),
                 row["ms_p50"].get<double>(), row["ms_max"].get<double>(), 100 * row["share"].get<double>());
  }
}

}  // namespace noxel::tool
