// Every live publisher of the process, for the fork handlers
// (kPublisherForkHooks) and for unloading (releasePublisherRegistry).
#ifndef KSCDP_PLATFORM_STANDIN_PUBLISHER_REGISTRY_H_
#define KSCDP_PLATFORM_STANDIN_PUBLISHER_REGISTRY_H_

namespace standin {

class MqttPublisher;

// Adds a publisher that has started. Thread-safe; may throw std::bad_alloc.
void registerPublisher(MqttPublisher* publisher);
// Removes a publisher before it stops. Thread-safe.
void unregisterPublisher(MqttPublisher* publisher);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_PUBLISHER_REGISTRY_H_
