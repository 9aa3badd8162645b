#pragma once

#include "orka/qrx.h"

#include "Collaboration.pb.h"
#include "Kova.pb.h"
#include "MediaStreamNotification.pb.h"

#include <string>
#include <variant>

namespace orka {

// Everything that can be sent to the radio. The order is part of the interface: new ones go to the
// end.
using RadioOutgoingMessage = std::variant<Collaboration::RadioEmergencyMsg,          // 0
                                          Collaboration::VideoTagControlReply,       // 1
                                          Kova::LocationInfoMsg,                     // 2
                                          Kova::SerialNumberMsg,                     // 3
                                          Kova::BtMacAddressMsg,                     // 4
                                          Kova::ShutdownResponse,                    // 5
                                          Kova::ShutdownRequest,                     // 6
                                          Kova::AmbaUpdateStatus,                    // 7
                                          Kova::FeedbackAction,                      // 8
                                          Kova::ConfigurationSetMsg,                 // 9
                                          Kova::ButtonsSubscribtionMsg,              // 10
                                          Kova::BluetoothConfigMsg,                  // 11
                                          Kova::BluetoothStatusMsg,                  // 12
                                          Kova::GattConfigMsg,                       // 13
                                          Kova::LedBrightnessSettingMsg,             // 14
                                          Kova::ToggleCovertModeMsg,                 // 15
                                          Kova::RadioStatusMsg,                      // 16
                                          Kova::RadioWlanControlOutgoingMsg,         // 17
                                          Kova::BatteryLevelRequest,                 // 18
                                          Kova::UsbRouteMsg,                         // 19
                                          Kova::UsbStatus,                           // 20
                                          Kova::RtFactoryResetRequest,               // 21
                                          Kova::OpcodeSubscriptionMsg,               // 22
                                          Kova::MicStatusMsg,                        // 23
                                          Kova::GetDateTimeReq,                      // 24
                                          Kova::SetDateTimeReq,                      // 25
                                          Kova::FileAccessWriteResponse,             // 26
                                          Kova::FileAccessCreateResponse,            // 27
                                          Kova::RtDebugLogMsg,                       // 28
                                          qrx::FileAccessRequest,                    // 29
                                          qrx::TransferDataRequest,                  // 30
                                          Kova::RsmUpdateRequest,                    // 31
                                          Kova::RadioWlanHotspotControlOutgoingMsg,  // 32
                                          Kova::RadioLteControlOutgoing,             // 33
                                          Kova::VideoControlBroadcast,               // 34
                                          Kova::VideoControlRequest,                 // 35
                                          Kova::VideoControlResponse,                // 36
                                          FileHandleRespWrapper,                     // 37
                                          Kova::RtVersionRequest,                    // 38
                                          Kova::HardwareIdRequest,                   // 39
                                          Kova::UserPresenceInfoResponse,            // 40
                                          Collaboration::IoTRegistrationRequest,     // 41
                                          Collaboration::IoTConnectionStatusQuery,   // 42
                                          Collaboration::IoTD2CDataMessage>;         // 43

// What comes with a notification. The order is part of the interface, and is not that of the
// outgoing union: an index of one means nothing in the other.
using RadioNotificationData = std::variant<std::string,                                 // 0
                                           MediaStreamNotification::InputNotification,  // 1
                                           Collaboration::RadioEmergencyMsg,            // 2
                                           Collaboration::RadioConnectionMsg,           // 3
                                           Collaboration::VideoTagControlRequest,       // 4
                                           Kova::OpcodeSubscriptionMsg,                 // 5
                                           Kova::ShutdownRequest,                       // 6
                                           Kova::ShutdownResponse,                      // 7
                                           Kova::RtVersionResponse,                     // 8
                                           Kova::HardwareIdResponse,                    // 9
                                           Kova::SerialNumberMsg,                       // 10
                                           Kova::BtMacAddressMsg,                       // 11
                                           Kova::ConfigurationSetMsg,                   // 12
                                           Kova::ButtonsSubscribtionMsg,                // 13
                                           Kova::BluetoothConfigMsg,                    // 14
                                           Kova::BluetoothStatusMsg,                    // 15
                                           Kova::GattConfigMsg,                         // 16
                                           Kova::LedBrightnessSettingMsg,               // 17
                                           Kova::ToggleCovertModeMsg,                   // 18
                                           Kova::RadioStatusMsg,                        // 19
                                           Kova::LocationInfoMsg,                       // 20
                                           Kova::RadioWlanControlIncomingMsg,           // 21
                                           Kova::UsbRouteMsg,                           // 22
                                           Kova::RtFactoryResetResponse,                // 23
                                           Kova::BatteryLevel,                          // 24
                                           Kova::MicStatusMsg,                          // 25
                                           Kova::GetDateTimeResp,                       // 26
                                           Kova::SetDateTimeResp,                       // 27
                                           Kova::FileAccessWriteRequest,                // 28
                                           Kova::FileAccessWriteSessionEnd,             // 29
                                           Kova::FileAccessCreateRequest,               // 30
                                           Kova::RtDebugLogMsg,                         // 31
                                           qrx::FileAccessResponse,                     // 32
                                           qrx::TransferDataResponse,                   // 33
                                           Kova::RsmUpdateResponse,                     // 34
                                           Kova::RadioLuiError,                         // 35
                                           Kova::RadioWlanHotspotControlIncomingMsg,    // 36
                                           Kova::RadioLteControlIncoming,               // 37
                                           Kova::VideoControlRequest,                   // 38
                                           Kova::VideoControlResponse,                  // 39
                                           Kova::FileHandleOpenRequest,                 // 40
                                           Kova::UserPresenceInfoRequest,               // 41
                                           Collaboration::IoTC2DDataMessage,            // 42
                                           Collaboration::IoTRegistrationResponse,      // 43
                                           Collaboration::IoTConnectionStatus>;         // 44

}  // namespace orka
