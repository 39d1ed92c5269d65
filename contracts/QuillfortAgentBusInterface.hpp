// Names of the agent's interface on the user's session bus, shared by the
// agent that serves it and the tools that call it. Structured values travel as
// compact JSON text, so a shell user with busctl reads them as they come.
#pragma once

namespace quillfort::QuillfortAgentBusInterface {

inline constexpr const char* busName = "com.vessimo.Quillfort.Agent";
inline constexpr const char* objectPath = "/com/vessimo/Quillfort/Agent";
inline constexpr const char* interfaceName = "com.vessimo.Quillfort.Agent";

// Methods, their argument and result signatures.
//   ListPrompts() -> s            {"prompts":[...],"queuedCount":n,"statusSummary":...,"listenerStatus":...}
//   GetPrompt(s id) -> s          one prompt as listed, always with its "alsoAnswersCount"
//   SetPreset(s id, s preset)     camel-case preset such as "allowSession"
//   SetHostScope(s id, s scope)   an id of the prompt's "hostScopeOptions"
//   SetRuleSelection(s id, s selection)   a rule selection as JSON
//   SetReuseExistingSignerRule(s id, b reuse)   "Reuse Existing" (true) or "Separate Rule"
//   Resolve(s id, s preset)       "" answers with the prompt's current choice
//   Cancel(s id)
//   CancelAll()
//   ListRules() -> s              {"rules":[{"id","name","enabled","action","scope","origin","priority",
//                                 "conditions","expiresAt"?}...],"problem"?}
//   EnableRule(s id), DisableRule(s id), DeleteRule(s id)   a whole id or a unique prefix of one
//   ExpireRule(s id, s duration)  "90s", "15m", "2h", "1d", or "never"
//   ShowStatusWindow()            brings the status window forward (fails on a headless agent)
// Signal QueueChanged(u count): the queue or a queued prompt's choice changed.
//
// How many other prompts an answer would also settle costs a pass over the
// whole queue, so a listing carries it only for the head of the queue (the
// prompt the window shows); GetPrompt gives it for any one prompt.
inline constexpr const char* listPrompts = "ListPrompts";
inline constexpr const char* getPrompt = "GetPrompt";
inline constexpr const char* setPreset = "SetPreset";
inline constexpr const char* setHostScope = "SetHostScope";
inline constexpr const char* setRuleSelection = "SetRuleSelection";
inline constexpr const char* setReuseExistingSignerRule = "SetReuseExistingSignerRule";
inline constexpr const char* resolve = "Resolve";
inline constexpr const char* cancel = "Cancel";
inline constexpr const char* cancelAll = "CancelAll";
inline constexpr const char* listRules = "ListRules";
inline constexpr const char* enableRule = "EnableRule";
inline constexpr const char* disableRule = "DisableRule";
inline constexpr const char* deleteRule = "DeleteRule";
inline constexpr const char* expireRule = "ExpireRule";
inline constexpr const char* showStatusWindow = "ShowStatusWindow";
inline constexpr const char* queueChanged = "QueueChanged";

// Errors a call may end with besides the bus's own.
inline constexpr const char* noSuchPromptError = "com.vessimo.Quillfort.Agent.Error.NoSuchPrompt";
inline constexpr const char* noSuchRuleError = "com.vessimo.Quillfort.Agent.Error.NoSuchRule";
inline constexpr const char* noWindowError = "com.vessimo.Quillfort.Agent.Error.NoWindow";
inline constexpr const char* invalidArgsError = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr const char* failedError = "org.freedesktop.DBus.Error.Failed";

}  // namespace quillfort::QuillfortAgentBusInterface
