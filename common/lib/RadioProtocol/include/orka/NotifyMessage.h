#pragma once

#include <cstddef>
#include <cstdint>

namespace orka {

// What the radio, or the link to it, reports. Open at the end: a newer library may report more.
enum class NotifyMessage : std::uint32_t {
  RadioConnected = 0,  // the radio said at the handshake that it is in service
  HandshakeCompleted = 1,
  RadioConnection = 2,
  ConnectionLost = 3,
  RadioEmergency = 4,
  HandshakeFailed = 5,
  ShutdownRequest = 6,
  ShutdownResponse = 7,
  LocationInfo = 8,
  RtVersion = 9,
  HardwareId = 10,
  SerialNumber = 11,
  BtMacAddress = 12,
  Docking = 13,
  ButtonsSubscribtion = 14,
  ConfigurationSet = 15,
  PhysicalUserInput = 16,
  BluetoothConfig = 17,
  BluetoothStatus = 18,
  LedBrightness = 19,
  FactoryResetAccepted = 20,
  GattConfig = 21,
  BatteryLevelResponse = 22,
  BatteryLevelBroadcast = 23,
  CovertModeResponse = 24,
  CovertModeBroadcast = 25,
  UsbStatusRequest = 26,
  RadioStatusRequest = 27,
  WlanControl = 28,
  UsbRouteRequest = 29,
  WlanHotspotControl = 30,
  MicStatus = 31,
  FactoryReset = 32,
  OpcodeSubscription = 33,
  GetDateTime = 34,
  SetDateTime = 35,
  VideoTagControlRequest = 36,
  RsmUpdate = 37,
  FileAccessWriteRequest = 38,
  FileAccessWriteSessionEnd = 39,
  FileAccessCreateRequest = 40,
  FileAccess = 41,
  TransferDataRequest = 42,
  TransferData = 43,
  UpgradeInProcess = 44,
  DebugLog = 45,
  LuiError = 46,
  IgFailed = 47,
  LteStatus = 48,
  VideoControlRequest = 49,
  VideoControlResponse = 50,
  FileHandleOpenRequest = 51,
  UserPresenceInfoRequest = 52,
  IoTC2DData = 53,
  IoTRegistration = 54,
  IoTConnectionStatus = 55,
};

inline constexpr std::size_t kNotifyMessageCount = 56;

}  // namespace orka
