#pragma once

namespace quillon::platform {

/// Takes a sample of this host's processors, memory and network, from which the API
/// "VELA.Core.System.Utilization" answers: its rates are those between the newest two samples. To
/// be called between requests, about once a second; a call within half a second of the last sample
/// does nothing. A process that has never called it answers averages since the host was started.
///
/// Never throws: after a sample that could not be taken, the API tries again and reports why.
void SampleUtilization();

}  // namespace quillon::platform
