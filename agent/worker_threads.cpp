#include "agent/worker_threads.h"

#include "platform/os.h"

namespace lindqvar {

void CWorkerThreads::Start() {
  m_threads[kNotificationThread].Start([this] {
    return RunNotificationPump(m_parts.window, m_parts.notifications, m_stopEvent,
                               m_parts.timings.pumpIntervalMs);
  });
  m_threads[kAddressWatchThread].Start([this] { return AddressWatchThread(); });
  m_threads[kAddressHandlerThread].Start([this] { return AddressHandlerThread(); });
  m_threads[kKeepAliveThread].Start([this] { return KeepAliveThread(); });
  m_threads[kResendThread].Start([this] { return ResendThread(); });
  m_threads[kPendingSessionThread].Start([this] { return PendingSessionThread(); });
}

void CWorkerThreads::Stop() {
  m_stopEvent.Set();
  for (Index i : {kNotificationThread, kKeepAliveThread, kResendThread, kAddressWatchThread,
                  kAddressHandlerThread, kPendingSessionThread}) {
    CWorkerThread& t = m_threads[i];
    if (!t.Started()) continue;
    while (t.ExitCode() == CWorkerThread::kStillActive) SleepMs(m_parts.timings.threadExitPollMs);
    t.Join();
  }
}

bool CWorkerThreads::End(uint32_t graceMs) {
  m_stopEvent.Set();
  const uint32_t start = TickCount();
  for (;;) {
    bool running = false;
    for (const CWorkerThread& t : m_threads)
      running = running || (t.Started() && t.ExitCode() == CWorkerThread::kStillActive);
    if (!running) break;
    if (TickCount() - start >= graceMs) return false;
    SleepMs(m_parts.timings.threadExitPollMs);
  }
  Join();
  return true;
}

void CWorkerThreads::Join() {
  m_stopEvent.Set();
  for (CWorkerThread& t : m_threads) t.Join();
}

bool CWorkerThreads::PauseAfterFailedWait(const char* thread, uint32_t& failures) {
  if (failures++ == 0) {
    m_parts.log.Error(
        "%s: waiting for an address change failed, error %d; trying again every %d ms", thread,
        static_cast<int>(LastErrorCode()), static_cast<int>(m_parts.timings.addressWaitRetryMs));
  }
  return m_stopEvent.Wait(m_parts.timings.addressWaitRetryMs) != WaitResult::kSignaled;
}

void CWorkerThreads::EndFailedWaits(const char* thread, uint32_t& failures) {
  if (failures == 0) return;
  m_parts.log.Debug("%s: waiting for an address change works again after %d failed waits", thread,
                    static_cast<int>(failures));
  failures = 0;
}

uint32_t CWorkerThreads::AddressWatchThread() {
  std::unique_ptr<IAddressChangeWatch> watch = m_parts.network.CreateAddressChangeWatch();
  const uint32_t error = watch ? watch->Arm() : 1u;
  if (error != 0) {
    m_parts.log.Debug("NotifyAddrChange error...%d", static_cast<int>(error));
    return 0;
  }
  uint32_t failures = 0;
  for (;;) {
    const int which = m_parts.waits.WaitAny(m_stopEvent, watch->Changed(), kInfinite);
    if (which == 0) break;
    if (which == 1) {
      EndFailedWaits("address watch", failures);
      watch->Changed().Reset();
      m_addressEvent.Set();
      watch->Rearm();
    } else if (!PauseAfterFailedWait("address watch", failures)) {
      break;
    }
  }
  return 1;
}

uint32_t CWorkerThreads::AddressHandlerThread() {
  uint32_t failures = 0;
  for (;;) {
    const int which = m_parts.waits.WaitAny(m_stopEvent, m_addressEvent, kInfinite);
    if (which == 0) return 1;
    // A failed wait says nothing about the addresses: no round for it.
    if (which != 1) {
      if (!PauseAfterFailedWait("address handler", failures)) return 1;
      continue;
    }
    EndFailedWaits("address handler", failures);
    // Checks at about 0, 5 and 10 seconds after the change; signals that
    // arrive meanwhile fold into one further check.
    for (int round = 0; round < 3; ++round) {
      m_parts.events.CheckAddressChange();
      if (round < 2 &&
          m_stopEvent.Wait(m_parts.timings.addressRoundWaitMs) == WaitResult::kSignaled)
        return 1;
    }
  }
}

uint32_t CWorkerThreads::KeepAliveWaitMs(uint32_t seconds, uint32_t unitMs) {
  const uint64_t kept =
      seconds < 1 ? 1 : (seconds > kMaxKeepAliveSeconds ? kMaxKeepAliveSeconds : seconds);
  const uint64_t ms = kept * unitMs;
  return ms >= kInfinite ? kInfinite - 1 : static_cast<uint32_t>(ms);
}

uint32_t CWorkerThreads::KeepAliveThread() {
  for (;;) {
    // The server sets the interval; a value whose milliseconds do not fit
    // 32 bits must not wrap into a short wait and a flood of keep-alives.
    const uint32_t waitMs =
        KeepAliveWaitMs(m_parts.keepAliveInterval(), m_parts.timings.keepAliveUnitMs);
    const WaitResult r = m_parts.waits.Wait(m_stopEvent, waitMs);
    if (r == WaitResult::kSignaled) return 1;
    if (r == WaitResult::kTimeout) m_parts.events.SendKeepAliveEvent();
  }
}

uint32_t CWorkerThreads::ResendThread() {
  for (;;) {
    const WaitResult r = m_stopEvent.Wait(m_parts.timings.resendPeriodMs);
    if (r == WaitResult::kSignaled) return 1;
    if (r != WaitResult::kTimeout) continue;
    // Kept logoffs (ResendLogoff) first: they withdraw users who left, and
    // a withdrawal that came after a newer report of the same addresses
    // could undo that report at a server.
    m_parts.events.ResendLogoffEvents();
    if (m_parts.events.ResendPending() == 1 && m_parts.events.ResendTries() < kMaxResendTries)
      m_parts.events.ResendLogonEvent();
  }
}

uint32_t CWorkerThreads::PendingSessionThread() {
  for (;;) {
    const WaitResult r = m_stopEvent.Wait(m_parts.timings.pendingRetryPeriodMs);
    if (r == WaitResult::kSignaled) return 1;
    if (r == WaitResult::kTimeout)
      m_parts.table.RetryPendingSessions(
          [this](uint32_t session) { m_parts.events.SendSessionEvent(session, 1, 0); });
  }
}

}  // namespace lindqvar
