# Standard MIDI files built by hand, a reference reader and a stream drain, for the MIDI tests and
# the scenes that play MIDI clips.
list(APPEND LORVEX_TEST_SUPPORT_SOURCES MidiFiles.cpp)
