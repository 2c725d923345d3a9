/* Marks the functions and data that libkscdp.so exports. */
#ifndef KSCDP_EXPORT_H_
#define KSCDP_EXPORT_H_

#if defined(__GNUC__)
#define KSCDP_EXPORT __attribute__((visibility("default")))
#else
#define KSCDP_EXPORT
#endif

#endif /* KSCDP_EXPORT_H_ */
