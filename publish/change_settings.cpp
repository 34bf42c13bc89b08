#include "publish/change_settings.h"

namespace tolm::publish {

void ChangeSettings(const ChangeSettingsRequest& request, const Notes& notes) {
  RepositoryChange change(request.repository, notes);
  Settings& settings = change.settings;
  settings.base_url = request.base_url.value_or(settings.base_url);
  settings.chain_share_percent = request.chain_share_percent.value_or(settings.chain_share_percent);
  settings.oldest_sqlite = request.oldest_sqlite.value_or(settings.oldest_sqlite);
  change.RequireGoodLinks();
  change.Begin("set");
  change.Commit();
}

}  // namespace tolm::publish
