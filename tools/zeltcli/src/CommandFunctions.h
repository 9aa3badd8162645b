#pragma once

#include "Commands.h"
#include "Session.h"

#include <string>
#include <string_view>
#include <vector>

namespace zelt::cli {

inline constexpr const char* kKova = "Kova";
inline constexpr const char* kLinkStatus = "Kova.RTConnectionStatus";
inline constexpr const char* kKeeper = "Keeper";
inline constexpr const char* kKeepStatus = "zelt.KeepLinkStatus";

// Tell when waiting ends, and how long an answer may take, as the command line or the command says.
Clock::time_point Deadline(const Cli& cli);
Seconds AnswerTime(const Cli& cli);

// The names of video actions on the command line, by number: "VIDEO_ACTION_START_RECORDING" is
// "start-recording".
std::vector<std::string> VideoActions(const MessageTypes& types);

// What the commands do; each throws CliError when it does not succeed.

// RadioCommands.cpp: questions to the radio
void Version(const Cli& cli);
void HardwareId(const Cli& cli);
void GetDateTime(const Cli& cli);
void SetDateTimeOnRadio(const Cli& cli);
void SetSocket(const Cli& cli);
void ClearSocket(const Cli& cli);
void FactoryReset(const Cli& cli);
void Inject(const Cli& cli);
void Video(const Cli& cli);
void PushFirmware(const Cli& cli);

// LinkCommands.cpp: the link to the radio
void LinkStatus(const Cli& cli);
void LinkUp(const Cli& cli);
void LinkDown(const Cli& cli);
void LinkKeep(const Cli& cli);
// Its state by name; empty when Kova does not tell it within a second.
std::string LinkState(const Cli& cli);
// Tells whether nothing reaches the radio until the next `link up`.
bool IsDown(std::string_view link_state);

// BusCommands.cpp: any service
void Services(const Cli& cli);
void Status(const Cli& cli);
void Send(const Cli& cli);
void Request(const Cli& cli);
void Listen(const Cli& cli);
void Subscribe(const Cli& cli);
void Watch(const Cli& cli);
void LinkWatch(const Cli& cli);
void Types(const Cli& cli);

// Completion.cpp
void Completion(const Cli& cli);
void Complete(const Cli& cli);

}  // namespace zelt::cli
