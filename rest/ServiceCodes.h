// The codes of the library's service exceptions, by name. The codes reach
// the engine as results, so their values are part of the interface.
#ifndef KSCDP_REST_SERVICECODES_H_
#define KSCDP_REST_SERVICECODES_H_

#include <kscdp/backup_engine.h>

// Codes of KSServiceException, the results the engine sees (named for it in
// backup_engine.h). The REST client's own codes pass through the job handler
// unchanged.
const int INVALID_REQUEST_CODE = KSCDP_ERR_BAD_REQUEST;         // a request that cannot be worked on
const int DAEMON_REQUEST_FAILED_CODE = KSCDP_ERR_DAEMON;        // the request daemon call failed
const int UNPARSABLE_ANSWER_CODE = KSCDP_ERR_BAD_ANSWER;        // an answer that cannot be parsed
const int MASTER_CONFIG_UNREADABLE_CODE = KSCDP_ERR_NO_MASTER;  // no master server from the master configuration

#endif  // KSCDP_REST_SERVICECODES_H_
