# certificates.sh DIR: an issuer (ca.pem), and of its certificates server.pem, other.pem (for another name), old.pem (no
# longer valid) and client.pem, each with NAME.key. Those of the last days are kept.
set -e
mkdir -p "$1"
cd "$1"
exec 9>lock
flock 9
[ -z "$(find complete -mtime -10 2>/dev/null)" ] || exit 0
key='-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes'
openssl req -x509 $key -keyout ca.key -out issuer.pem -days 30 -subj /CN=issuer 2>/dev/null
yes 'a bundle has other things in front' | head -n 300 | cat - issuer.pem >ca.pem
issue() {
    openssl req $key -keyout "$1.key" -out "$1.csr" -subj "/CN=$1" 2>/dev/null
    echo "subjectAltName=$3" >"$1.ext"
    openssl x509 -req -in "$1.csr" -CA issuer.pem -CAkey ca.key -CAcreateserial -days "$2" -extfile "$1.ext" -out "$1.pem" 2>/dev/null
}
issue server 30 DNS:localhost,IP:127.0.0.1
issue other 30 DNS:other.example
issue old -1 DNS:localhost
issue client 30 DNS:client
touch complete
