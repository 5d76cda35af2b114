# What identifies peers and connections of the running engine, one a line. $1: the viewer. $2: what is asked for.
# Without single quotes and double backslashes, which would not mean the same in every shell.
case $2 in
no | ctx-id | mac-id | peer-id | ip) "$1" peer detail 2>/dev/null ;;
*) "$1" conn 2>/dev/null ;;
esac | case $2 in
no) sed -nE "s/^Peer-No : ([0-9]+).*/\1/p" ;;
ctx-id) sed -nE "s/^Peer-No : .*Context: ([0-9]+).*/\1/p" ;;
mac-id) sed -nE "s/^Peer-ID : //p" ;;
peer-id) sed -nE "s/^KAV-peer-id : ([0-9a-f:-]+).*/\1/p" ;;
ip) sed -nE "s/^IP reported from peer: ([0-9])/\1/p" ;;
conn-id) sed -nE "s/^([0-9]+) +[0-9]+ .*:.*:.*/\1/p" ;;
client-ip) sed -nE "s/^[0-9]+ +[0-9]+ +([0-9.]+):.*:.*/\1/p" | sort -u ;;
client-port) sed -nE "s/^[0-9]+ +[0-9]+ +[0-9.]+:([0-9]+) .*:.*/\1/p" | sort -u ;;
server-ip) sed -nE "s/^[0-9]+ +[0-9]+ +[0-9.:]+ +([0-9.]+):.*/\1/p" | sort -u ;;
server-port) sed -nE "s/^[0-9]+ +[0-9]+ +[0-9.:]+ +[0-9.]+:([0-9]+) .*/\1/p" | sort -u ;;
esac
