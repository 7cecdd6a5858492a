// Reading the server's documents: the poll answer, deploymentBase and
// cancelAction. Every member is matched by the beginning of its name.
#include "ddi/document_parsers.h"

#include <string>

#include "ddi/json_reader.h"
#include "io/logline.h"

namespace {

using deployment_t = hawkbit_query_t::deployment_t;
using chunk_t = deployment_t::chunk_t;
using artifact_t = chunk_t::artifact_t;
using metadata_entry_t = chunk_t::metadata_entry_t;

// Arrays of artifacts and metadata entries are read only when their first
// element is an object with members.
bool readableObjectArray(cJSON const* node) {
  if (node == nullptr || (node->type & 0xFF) != cJSON_Array) return false;
  cJSON const* first = node->child;
  return first != nullptr && (first->type & 0xFF) == cJSON_Object && first->child != nullptr;
}

// Splits at ':' like a line reader with ':' as the line end: no empty last
// piece after a trailing ':', none at all for an empty text.
std::vector<std::string> splitPieces(std::string const& text) {
  std::vector<std::string> pieces;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t const colon = text.find(':', start);
    if (colon == std::string::npos) {
      pieces.push_back(text.substr(start));
      break;
    }
    pieces.push_back(text.substr(start, colon - start));
    start = colon + 1;
  }
  return pieces;
}

}  // namespace

hawkbit_query_t parse_status_response(std::string const& json) {
  hawkbit_query_t result;
  cjson_tree const tree = parseDocument(json, parse_echo::whole_text);
  if (!tree || tree.get()->child == nullptr) return result;
  for (cJSON const* member = tree.get()->child; member != nullptr; member = member->next) {
    if (keyMatches(member, "config")) {
      if (member->child != nullptr) result.config = parse_config(member->child);
    } else if (keyMatches(member, "_links")) {
      if (member->child != nullptr) {
        hawkbit_query_t const found = parse_links(member->child);
        result.deployment.url = found.deployment.url;
        result.config_data.url = found.config_data.url;
        result.cancel_action.url = found.cancel_action.url;
      }
    }
  }
  return result;
}

hawkbit_query_t parse_links(cJSON const* first) {
  hawkbit_query_t result;
  for (cJSON const* link = first; link != nullptr; link = link->next) {
    cJSON const* href = link->child;
    if (!keyMatches(href, "href")) continue;
    if (keyMatches(link, "deploymentBase")) {
      takeString(href, result.deployment.url);
    } else if (keyMatches(link, "configData")) {
      takeString(href, result.config_data.url);
    } else if (keyMatches(link, "cancelAction")) {
      takeString(href, result.cancel_action.url);
    }
  }
  return result;
}

hawkbit_query_t::config_t parse_config(cJSON const* first) {
  hawkbit_query_t::config_t config;
  for (cJSON const* polling = first; polling != nullptr; polling = polling->next) {
    if (!keyMatches(polling, "polling") || !cJSON_IsObject(polling)) continue;
    for (cJSON const* sleep = polling->child; sleep != nullptr; sleep = sleep->next) {
      if (!keyMatches(sleep, "sleep") || !cJSON_IsString(sleep)) continue;
      std::vector<std::string> const pieces = splitPieces(sleep->valuestring);
      if (pieces.size() != 3) continue;
      // std::stoi throws on a piece without digits or out of int range; the
      // error is meant to reach the host.
      std::int64_t const hours = std::stoi(pieces[0]);
      std::int64_t const minutes = std::stoi(pieces[1]);
      std::int64_t const seconds = std::stoi(pieces[2]);
      config.sleep = hours * 3600 + minutes * 60 + seconds;
    }
  }
  return config;
}

bool parse_deployment_base(std::string const& json, deployment_t& deployment) {
  if (json.empty()) {
    logLine("[E] libtamrelcore -> Unable to parse empty JSON string\n");
    return false;
  }
  deployment.json = json;
  cjson_tree const tree = parseDocument(json, parse_echo::rest_of_text);
  if (!tree) return false;
  if (tree.get()->child == nullptr) {
    logLine("[E] libtamrelcore -> JSON tree broken or incomplete\n");
    return false;
  }
  for (cJSON const* member = tree.get()->child; member != nullptr; member = member->next) {
    if (keyMatches(member, "id")) {
      takeString(member, deployment.id);
    } else if (keyMatches(member, "deployment")) {
      if (member->child != nullptr) deployment.chunks = parse_deployment(member->child);
    }
  }
  return true;
}

std::vector<chunk_t> parse_deployment(cJSON const* first) {
  std::vector<chunk_t> chunks;
  for (cJSON const* member = first; member != nullptr; member = member->next) {
    if (!keyMatches(member, "chunks") || (member->type & 0xFF) != cJSON_Array) continue;
    for (cJSON const* element = member->child; element != nullptr; element = element->next) {
      chunk_t chunk;
      for (cJSON const* field = element->child; field != nullptr; field = field->next) {
        if (keyMatches(field, "part")) {
          takeString(field, chunk.part);
        } else if (keyMatches(field, "version")) {
          takeString(field, chunk.version);
        } else if (keyMatches(field, "name")) {
          takeString(field, chunk.name);
        } else if (keyMatches(field, "artifacts")) {
          chunk.artifacts = parse_artifacts(field);
        } else if (keyMatches(field, "metadata")) {
          chunk.metadata = parse_metadata(field);
        }
      }
      chunks.push_back(std::move(chunk));
    }
  }
  return chunks;
}

std::vector<artifact_t> parse_artifacts(cJSON const* node) {
  std::vector<artifact_t> artifacts;
  if (!readableObjectArray(node)) return artifacts;
  // An element without members ends the list.
  for (cJSON const* element = node->child; element != nullptr && element->child != nullptr;
       element = element->next) {
    artifact_t artifact;
    for (cJSON const* field = element->child; field != nullptr; field = field->next) {
      if (keyMatches(field, "filename")) {
        takeString(field, artifact.filename);
      } else if (keyMatches(field, "hashes")) {
        // Unnamed entries (an array instead of an object) have no key: skipped.
        for (cJSON const* hash = field->child; hash != nullptr; hash = hash->next) {
          if (hash->string != nullptr && cJSON_IsString(hash)) {
            artifact.hashes[hash->string] = hash->valuestring;
          }
        }
      } else if (keyMatches(field, "size")) {
        // cJSON's int view saturates at INT_MAX / INT_MIN; a negative value
        // widens with its sign.
        artifact.size = static_cast<std::uint64_t>(static_cast<std::int64_t>(field->valueint));
      } else if (keyMatches(field, "_links")) {
        for (cJSON const* link = field->child; link != nullptr; link = link->next) {
          cJSON const* href = link->child;
          if (link->string != nullptr && keyMatches(href, "href") && cJSON_IsString(href)) {
            artifact.links[link->string] = href->valuestring;
          }
        }
      }
    }
    artifacts.push_back(std::move(artifact));
  }
  return artifacts;
}

std::vector<metadata_entry_t> parse_metadata(cJSON const* node) {
  std::vector<metadata_entry_t> entries;
  if (!readableObjectArray(node)) return entries;
  for (cJSON const* element = node->child; element != nullptr && element->child != nullptr;
       element = element->next) {
    metadata_entry_t entry;
    for (cJSON const* field = element->child; field != nullptr; field = field->next) {
      if (keyMatches(field, "key")) {
        takeString(field, entry.key);
      } else if (keyMatches(field, "value")) {
        takeString(field, entry.value);
      }
    }
    entries.push_back(std::move(entry));
  }
  return entries;
}

bool parse_cancel_action(std::string const& json, hawkbit_query_t::cancel_action_t& cancelAction) {
  if (json.empty()) {
    logLine("[E] libtamrelcore -> Unable to parse empty JSON string\n");
    return false;
  }
  cjson_tree const tree = parseDocument(json, parse_echo::rest_of_text);
  if (!tree) return false;
  if (!cJSON_IsObject(tree.get()) || tree.get()->child == nullptr) {
    logLine("[E] libtamrelcore -> JSON tree broken or incomplete\n");
    return false;
  }
  for (cJSON const* member = tree.get()->child; member != nullptr; member = member->next) {
    if (keyMatches(member, "id")) {
      takeString(member, cancelAction.id);
    } else if (keyMatches(member, "cancelAction")) {
      for (cJSON const* field = member->child; field != nullptr; field = field->next) {
        if (keyMatches(field, "stopId")) takeString(field, cancelAction.stop_id);
      }
    }
  }
  return !cancelAction.stop_id.empty();
}
