#include "services/KSUServiceImpl.h"

KSUServiceImpl::~KSUServiceImpl() {}

ServiceInterface* KSUServiceImpl::setNext(ServiceInterface* next) {
  m_next = next;
  return next;
}

int KSUServiceImpl::forward(ServiceData* data) { return m_next != nullptr ? m_next->handleRequest(data) : 0; }
