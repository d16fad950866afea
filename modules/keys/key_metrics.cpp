#include "modules/keys/key_metrics.h"

#include "kelcore/keys/key_ring.h"

namespace {

using Kind = KelMetric::Kind;

constexpr KelMetric kExpiry(Kind::Gauge, "kel_certificate_expiry_timestamp_seconds",
                            "End of a certificate, in seconds since the epoch: of the device and of the "
                            "authority of its tree.");
constexpr KelMetric kEnrolled(Kind::Gauge, "kel_keys_enrolled",
                              "1 when the device has a certificate of its tree, 0 while it waits for one.");
constexpr KelMetric kRevoked(Kind::Gauge, "kel_keys_revoked_certificates",
                             "Certificates on the list of revoked ones that the device has.");

}  // namespace

void CollectKeyMetrics(const AgentSecurityKeys& keys, KelMetricsPage& page) {
    if (!keys) return;
    const KelKeyRing::Parts& parts = keys->Get();
    if (parts.certificate)
        page.Add(kExpiry, {{"certificate", "device"}}, static_cast<double>(parts.certificate->NotAfter()));
    if (parts.authority)
        page.Add(kExpiry, {{"certificate", "authority"}}, static_cast<double>(parts.authority->NotAfter()));
    page.Add(kEnrolled, keys->IsEnrolled() ? 1 : 0);
    page.Add(kRevoked, static_cast<double>(parts.revoked.Count()));
}
