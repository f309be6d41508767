# fish completion for devsim.
complete -c devsim -f
complete -c devsim -l port -x -d 'Port to listen on (0 picks a free one)'
complete -c devsim -l fleet -r -F -d 'Serve the devices of this JSON fleet file'
complete -c devsim -l generate-fleet -x -d 'Serve this many synthetic devices'
complete -c devsim -l tick-ms -x -d 'Milliseconds between progress events'
complete -c devsim -l progress-steps -x -d 'Progress events per job'
complete -c devsim -l record -r -F -d 'Append every frame received to this file'
complete -c devsim -l close-after -x -d 'Close each connection after N messages'
complete -c devsim -l garbage-after -x -d 'Send one non-JSON frame after N messages'
complete -c devsim -l mute-after -x -d 'Go silent after N messages'
complete -c devsim -l oversize-after -x -d 'Send one 33 MB frame after N messages'
complete -c devsim -l binary -d 'Send every message as a binary frame'
complete -c devsim -s h -l help -d 'List the options'
