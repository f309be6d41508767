# fish completion for devupdate: options, modes, file names and the live device names.

# The names of the devices the service reports right now, offered after --device-name=.
# Only the tool and the line's --port= are used: the tool runs with a plain list request
# and nothing else, since any other word could reboot or flash. A service that is down
# or silent costs at most a second and offers nothing. fish quotes what it inserts.
function __devupdate_device_names
    set -l words (commandline -opc)
    set -l port 7070
    for word in $words[2..-1]
        string match -q -- '--port=*' $word; and set port (string replace -- --port= '' $word)
    end
    string match -qr '^[0-9]+$' -- $port; or return
    # A watchdog instead of timeout(1), which macOS lacks.
    sh -c '
        command "$1" --port="$2" --list </dev/null 2>/dev/null &
        tool=$!
        (
            trap "kill \$! 2>/dev/null; exit 0" TERM
            sleep 1 &
            wait $!
            kill "$tool"
        ) >/dev/null 2>&1 &
        wait "$tool"
        kill $! 2>/dev/null' sh $words[1] $port 2>/dev/null |
        # "Found[Mode]:" padded to 17 characters, then name,maker,model,version, unquoted:
        # a line with more fields has a comma in one of them, no telling which, and is skipped.
        sed -n 's/^Found\[.\{11\}\([^,][^,]*\),[^,]*,[^,]*,[^,]*$/\1/p'
end

complete -c devupdate -f
complete -c devupdate -s a -l all -d 'Act on every matching device'
complete -c devupdate -l list -d 'List the devices the service reports'
complete -c devupdate -l long-lived -d 'Stay connected; handle devices that come and go'
complete -c devupdate -l port -x -d 'Port of the service (default 7070)'
complete -c devupdate -s f -l force -d 'Accept an image for another manufacturer or model'
complete -c devupdate -l file -r -F -d 'Update normal-mode devices with this firmware file'
complete -c devupdate -l recover-safe -F -d 'Recover safe-mode devices (=FILE: with this image)'
complete -c devupdate -l recover-failsafe -d 'Recover failsafe-mode devices'
complete -c devupdate -l device-mode -x -a 'normal failsafe safe' -d 'Select devices in this mode'
complete -c devupdate -l device-name -x -a '(__devupdate_device_names)' -d 'Select the device with this name'
complete -c devupdate -l device-ip -x -d 'Select the device with this IP address'
complete -c devupdate -l device-mac -x -d 'Select the device with this MAC address'
complete -c devupdate -l manufacturer -x -d 'Select devices of this manufacturer id'
complete -c devupdate -l model -x -d 'Select devices of this model id'
complete -c devupdate -l reboot -d 'Reboot the selected devices (after the update)'
