#include "agent/catalogue.h"

namespace lindqvar {

namespace {
#define LINDQ_TEMPLATE(msg)                                                                 \
  u"action=<logoff|logon|ipchange|wakeup|keepalive> domain=<domain name> remotegw=<remote " \
  u"gateway> user=<logged on user> msg=" msg

constexpr CatalogueEvent kCatalogue[] = {
    {kEventSingleSignOn, kSeverityInformational, u"Single Sign-On event",
     LINDQ_TEMPLATE(u"Single Sign-On event"), u"Single Sign-On event."},
    {kEventEnabled, kSeverityInformational, u"Lindqvar was enabled",
     LINDQ_TEMPLATE(u"Lindqvar was enabled"), u"Logged when someone enables Lindqvar."},
    {kEventDisabled, kSeverityWarning, u"Lindqvar was disabled",
     LINDQ_TEMPLATE(u"Lindqvar was disabled"), u"Logged when someone disables Lindqvar."},
    {kEventStarting, kSeverityInformational, u"Lindqvar is starting..., version:%s",
     LINDQ_TEMPLATE(u"Lindqvar is starting..., version:[nnn]"), u"Lindqvar is starting"},
    {kEventStopping, kSeverityInformational, u"Lindqvar is stopping..., version:%s",
     LINDQ_TEMPLATE(u"Lindqvar is stopping..., version:[nnn]"), u"Lindqvar is stopping"},
};
#undef LINDQ_TEMPLATE
}  // namespace

std::span<const CatalogueEvent> EventCatalogue() { return kCatalogue; }

}  // namespace lindqvar
