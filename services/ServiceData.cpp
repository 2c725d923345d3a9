#include "services/ServiceData.h"

ServiceData::~ServiceData() = default;
AlertServiceData::~AlertServiceData() = default;
EvictionServiceData::~EvictionServiceData() = default;
JobServiceData::~JobServiceData() = default;

void AlertServiceData::insertAttribute(const std::string& key, const std::string& value) {
  attributes.insert(std::make_pair(key, value));
}
