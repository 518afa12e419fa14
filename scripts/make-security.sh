#!/usr/bin/env bash
# Makes everything a secured bus (config/Marlet-secure.xml) needs, under DIR:
#
#   DIR/ca.pem, DIR/ca.key        the certificate authority (keep ca.key off the devices)
#   DIR/governance.p7s            bus-wide rules: only authenticated processes join, discovery,
#                                 liveliness and every tag group's samples are encrypted
#   DIR/<role>/identity.pem       the role's certificate, signed by the CA
#   DIR/<role>/key.pem            its private key
#   DIR/<role>/permissions.p7s    what the role may publish and read, signed by the CA
#
# Roles made every time:
#   publisher   publishes every tag group of the shipped definitions, reads none
#   subscriber  reads every tag group, publishes none
#   tool        reads every tag group, publishes none (qxbus list / echo / stats)
# Further read-only roles can be added as NAME=GROUP,GROUP,... where a GROUP is a
# tag group name such as DetectionBoxData (topic com.vision.data.<GROUP>) or a full
# topic such as com.vision.data.IXOPipe. Example, a consumer of results that must
# not see the pictures:
#
#   scripts/make-security.sh common/data_model/security \
#       results=ClassificationData,DetectionBoxData,SegmentationData,DeviceInfoData
#
# Samples are encrypted and authenticated (AES-GCM); the RTPS headers around them
# are not signed unless QX_SIGN_HEADERS=1 is set, which costs about 4 ms of CPU
# more per 1080p frame (see docs/benchmarks.md).
#
# A process picks its role with IXO_SECURITY_ROLE; see docs/configuration.md.
# Running the script again over the same DIR keeps the CA (so identities made
# earlier stay valid) and remakes everything else.
set -euo pipefail

usage() { echo "usage: $0 DIR [ROLE=GROUP,GROUP,...]..." >&2; exit 2; }
[ $# -ge 1 ] || usage
dir="$1"
shift
here="$(cd "$(dirname "$0")" && pwd)"
definitions="${QX_TAG_GROUP_DIR:-$here/../common/data_model/definitions/TagGroup}"
days=3650
headers=NONE
[ "${QX_SIGN_HEADERS:-0}" = 1 ] && headers=SIGN
command -v openssl >/dev/null || { echo "$0: openssl not found (apt-get install openssl)" >&2; exit 1; }

# The DDS topic name of a tag-group topic, as the bus library makes it: '.'
# becomes '/', anything but letters, digits, '_' and '/' becomes '_'.
dds_topic() { sed -e 's|\.|/|g' -e 's|[^A-Za-z0-9_/]|_|g' -e 's|^[0-9]|_&|' <<<"$1"; }

mapfile -t shipped < <(grep -rhoE '"topic"[[:space:]]*:[[:space:]]*"[^"]+"' "$definitions" --include='*.json' |
    sed -E 's/.*"([^"]+)"$/\1/' | sort -u)
[ ${#shipped[@]} -gt 0 ] || { echo "$0: no tag-group topics found under $definitions" >&2; exit 1; }
all_topics=()
for t in "${shipped[@]}"; do all_topics+=("$(dds_topic "$t")"); done

mkdir -p "$dir"
if [ ! -f "$dir/ca.key" ] || [ ! -f "$dir/ca.pem" ]; then
    (umask 077 && openssl ecparam -name prime256v1 -genkey -noout -out "$dir/ca.key")
    openssl req -x509 -new -key "$dir/ca.key" -out "$dir/ca.pem" -days "$days" -subj "/O=qxedge bus/CN=qxedge bus CA"
fi

sign() { openssl smime -sign -in "$1" -text -out "$2" -signer "$dir/ca.pem" -inkey "$dir/ca.key"; }

# Domains 0 to 232: every id the bus library accepts.
domains='<domains><id_range><min>0</min><max>230</max></id_range></domains>'

cat >"$dir/governance.xml" <<EOF
<?xml version="1.0" encoding="utf-8"?>
<dds>
  <domain_access_rules>
    <domain_rule>
      $domains
      <allow_unauthenticated_participants>false</allow_unauthenticated_participants>
      <enable_join_access_control>true</enable_join_access_control>
      <discovery_protection_kind>ENCRYPT</discovery_protection_kind>
      <liveliness_protection_kind>ENCRYPT</liveliness_protection_kind>
      <rtps_protection_kind>NONE</rtps_protection_kind>
      <topic_access_rules>
        <topic_rule>
          <topic_expression>*</topic_expression>
          <enable_discovery_protection>true</enable_discovery_protection>
          <enable_liveliness_protection>true</enable_liveliness_protection>
          <enable_read_access_control>true</enable_read_access_control>
          <enable_write_access_control>true</enable_write_access_control>
          <metadata_protection_kind>$headers</metadata_protection_kind>
          <data_protection_kind>ENCRYPT</data_protection_kind>
        </topic_rule>
      </topic_access_rules>
    </domain_rule>
  </domain_access_rules>
</dds>
EOF
sign "$dir/governance.xml" "$dir/governance.p7s"

# <publish> or <subscribe> block for a list of DDS topics, in every flow.
access_block() {
    local kind="$1"
    shift
    [ $# -gt 0 ] || return 0
    echo "        <$kind><topics>"
    for t in "$@"; do echo "          <topic>$t</topic>"; done
    echo "        </topics><partitions><partition>*</partition></partitions></$kind>"
}

# make_role NAME "PUBLISH TOPICS" "SUBSCRIBE TOPICS"
make_role() {
    local name="$1" pub="$2" sub="$3" out="$dir/$1"
    local subject="/O=qxedge bus/CN=$name"
    mkdir -p "$out"
    (umask 077 && openssl ecparam -name prime256v1 -genkey -noout -out "$out/key.pem")
    openssl req -new -key "$out/key.pem" -subj "$subject" -out "$out/identity.csr"
    openssl x509 -req -in "$out/identity.csr" -CA "$dir/ca.pem" -CAkey "$dir/ca.key" -CAcreateserial \
        -days "$days" -out "$out/identity.pem" 2>/dev/null
    rm -f "$out/identity.csr"
    local from to
    from="$(date -u +%Y-%m-%dT%H:%M:%S -d '1 day ago')"
    to="$(date -u +%Y-%m-%dT%H:%M:%S -d "$days days")"
    # shellcheck disable=SC2086 # the topic lists are words on purpose
    cat >"$out/permissions.xml" <<EOF
<?xml version="1.0" encoding="utf-8"?>
<dds>
  <permissions>
    <grant name="$name">
      <subject_name>CN=$name,O=qxedge bus</subject_name>
      <validity><not_before>$from</not_before><not_after>$to</not_after></validity>
      <allow_rule>
        $domains
$(access_block publish $pub)
$(access_block subscribe $sub)
      </allow_rule>
      <default>DENY</default>
    </grant>
  </permissions>
</dds>
EOF
    sign "$out/permissions.xml" "$out/permissions.p7s"
    echo "role $name: $out (publishes: ${pub:-nothing}; reads: ${sub:-nothing})"
}

make_role publisher "${all_topics[*]}" ""
make_role subscriber "" "${all_topics[*]}"
make_role tool "" "${all_topics[*]}"

for extra in "$@"; do
    [[ "$extra" =~ ^([A-Za-z0-9_-]+)=(.+)$ ]] || { echo "$0: bad role \"$extra\"" >&2; usage; }
    name="${BASH_REMATCH[1]}"
    topics=()
    IFS=',' read -ra groups <<<"${BASH_REMATCH[2]}"
    for g in "${groups[@]}"; do
        [[ "$g" == *.* ]] || g="com.vision.data.$g"
        topics+=("$(dds_topic "$g")")
    done
    make_role "$name" "" "${topics[*]}"
done
echo "CA certificate: $dir/ca.pem (its key $dir/ca.key signs new roles; keep it off the devices)"
