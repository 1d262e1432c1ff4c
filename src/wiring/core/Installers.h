#pragma once

/// One procedure per service group: makes the group's objects in a fixed order, then registers its providers. No
/// arguments, no result, no branches; what throws leaves what was made so far in place.
namespace wiring {

void installAdministrationServices();
void installConnectorRegistry();
void installJsonServices();
void installConfigurationServices();

void installHttpServices();
void installBayeuxServices();
void installCommonServices();
void installContainerServices();
void installSecurityServices();

void installDesktopServices();
void installHitchhikerServices();
void installInformationServices();
void installShadowFilesServices();
void installInterpreterServices();

} // namespace wiring
