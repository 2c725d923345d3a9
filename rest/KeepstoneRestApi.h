// The master server's REST jobs interface as this system speaks it: the one
// home of its constants, shared by the REST client, the job handler, the
// operator's doctor and the master simulator. The REST client and the job
// handler build their own file-local strings from the parts at load, in the
// system's order; the joined forms below are for everything else.
#ifndef KSCDP_REST_KEEPSTONERESTAPI_H_
#define KSCDP_REST_KEEPSTONERESTAPI_H_

#define KEEPSTONE_REST_MEDIA_TYPE "application/vnd.keepstone+json"
#define KEEPSTONE_REST_MAX_VERSION "6.0"
#define KEEPSTONE_REST_API_PREFIX "keepstone"
#define KEEPSTONE_REST_JOBS_RESOURCE "/admin/jobs/"

namespace keepstone_rest {

// The port of the master's web service.
constexpr int kPort = 1556;

// The media type of the jobs interface and the newest version of it that
// this system reads.
constexpr char kMediaType[] = KEEPSTONE_REST_MEDIA_TYPE;
constexpr char kMaxVersion[] = KEEPSTONE_REST_MAX_VERSION;
// The Accept of every request: the media type with its version.
constexpr char kVersionedMediaType[] = KEEPSTONE_REST_MEDIA_TYPE ";version=" KEEPSTONE_REST_MAX_VERSION;

// REST paths carry no leading slash; a job's path is kJobsPath followed by
// its id in decimal.
constexpr char kApiPrefix[] = KEEPSTONE_REST_API_PREFIX;
constexpr char kJobsResource[] = KEEPSTONE_REST_JOBS_RESOURCE;
constexpr char kJobsPath[] = KEEPSTONE_REST_API_PREFIX KEEPSTONE_REST_JOBS_RESOURCE;

}  // namespace keepstone_rest

#endif  // KSCDP_REST_KEEPSTONERESTAPI_H_
