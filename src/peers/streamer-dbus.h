// Follows the video streamer: which channels exist and whether each is enabled.
#pragma once

#include "platform/object-handles.h"

#include <functional>
#include <list>
#include <string>

class VirtualInput;

/// Main thread only. Its end takes the channels' ports away.
class StreamerDbus {
public:
  /// `input` is told of the channels and must outlive this.
  explicit StreamerDbus(VirtualInput& input);
  ~StreamerDbus();
  StreamerDbus(const StreamerDbus&) = delete;
  StreamerDbus& operator=(const StreamerDbus&) = delete;

  /// Waits for nobody: the channels are met one by one from the main loop. `met` is called once,
  /// when the first meeting is over: all channels are met, there is no streamer, or it went
  /// meanwhile.
  void init(std::function<void()> met);
  /// From here on the streamer's coming and going counts, also what there was of it since the init.
  void follow();

private:
  struct Channel;

  using Made = void (StreamerDbus::*)(ObjectRef<GDBusProxy> proxy);

  void make_proxy(const std::string& path, GDBusProxyFlags flags, Made made);
  void give_up();
  void tell_channels_met();
  void meet_channels();
  void meet_channel(int channel);
  void meet_anew();
  void drop_channels();
  void follow_channel(GDBusProxy* proxy, int number);
  void on_watch_made(ObjectRef<GDBusProxy> proxy);
  void on_channel_made(ObjectRef<GDBusProxy> proxy);
  void on_channel_answered();
  void on_owner_changed();

  VirtualInput& input_;
  /// Tells of the streamer's coming and going.
  ObjectRef<GDBusProxy> owner_watch_;
  SignalHandler owner_handler_;
  std::list<Channel> channels_;
  /// A proxy that is made, or a channel that is asked. Given up when the streamer goes, because all
  /// of it belongs to that one.
  UnderWay under_way_;
  /// The channel that is asked, and its number.
  ObjectRef<GDBusProxy> asked_;
  int asked_channel_ = 0;
  /// Called once, at the end of the first meeting.
  std::function<void()> channels_met_;
  /// Whether owners are followed, or a change is only noted.
  bool following_ = false;
  bool owner_changed_ = false;
};
