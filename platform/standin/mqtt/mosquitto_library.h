// libmosquitto's process-wide set-up, as the stand-ins hold it: taken by the
// first publisher, given back when the library is unloaded, so that a
// process that loads and unloads the library does not lose what libmosquitto
// made for TLS.
#ifndef KSCDP_PLATFORM_STANDIN_MQTT_MOSQUITTO_LIBRARY_H_
#define KSCDP_PLATFORM_STANDIN_MQTT_MOSQUITTO_LIBRARY_H_

namespace standin {

// Initialises libmosquitto once, until releaseMosquittoLibrary(). Its init
// and cleanup are counted, so other users in the process keep theirs.
// Thread-safe.
void useMosquittoLibrary();
// Gives back what useMosquittoLibrary() took, if it took anything; only once
// no publisher lives. Thread-safe.
void releaseMosquittoLibrary();

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_MQTT_MOSQUITTO_LIBRARY_H_
