// The levels of the library's log lines and the codes of its service
// exceptions, by name. The codes reach the engine as results, so their values
// are part of the interface.
#ifndef KSCDP_SERVICES_SERVICECODES_H_
#define KSCDP_SERVICES_SERVICECODES_H_

// Levels passed to ksu_logmsg_str.
const int TRACE_LEVEL = 2;     // raw traces: the daemon's answer, identifier conversions
const int PROGRESS_LEVEL = 4;  // each request, each result
const int FAILURE_LEVEL = 16;  // failures, and the details of each VM evicted

// Codes of KSServiceException. The REST client's own codes pass through the
// job handler unchanged.
const int INVALID_REQUEST_CODE = 20;            // a request that cannot be worked on
const int DAEMON_REQUEST_FAILED_CODE = 25;      // the request daemon call failed
const int UNPARSABLE_ANSWER_CODE = 130;         // an answer that cannot be parsed
const int MASTER_CONFIG_UNREADABLE_CODE = 8775; // no master server from the master configuration

#endif  // KSCDP_SERVICES_SERVICECODES_H_
